#include "KVNURLAdditions.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Plain-path text operations. They treat every "/" as a separator and know
// nothing of URLs, which URLDeletingLastPathComponent and lastPathComponent
// depend on.

QByteArray collapseSlashes(const QByteArray &path)
{
    QByteArray result;
    result.reserve(path.size());
    for (const char c : path) {
        if (c == '/' && result.endsWith('/'))
            continue;
        result.append(c);
    }
    return result;
}

QByteArray withoutTrailingSlash(QByteArray path)
{
    while (path.size() > 1 && path.endsWith('/'))
        path.chop(1);
    return path;
}

QByteArray appendingPathComponent(const QByteArray &base, const QByteArray &component)
{
    QByteArray joined;
    if (base.isEmpty())
        joined = component;
    else if (component.isEmpty())
        joined = base;
    else
        joined = base + '/' + component;
    return withoutTrailingSlash(collapseSlashes(joined));
}

QByteArray deletingLastPathComponent(const QByteArray &path)
{
    const QByteArray clean = withoutTrailingSlash(collapseSlashes(path));
    const qsizetype slash = clean.lastIndexOf('/');
    if (slash < 0)
        return QByteArray();
    if (slash == 0)
        return QByteArrayLiteral("/");
    return clean.left(slash);
}

QByteArray lastComponentOf(const QByteArray &path)
{
    const QByteArray clean = withoutTrailingSlash(path);
    if (clean == "/")
        return clean;
    return clean.mid(clean.lastIndexOf('/') + 1);
}

QByteArray currentDirectory()
{
    QByteArray buffer(4096, '\0');
    for (;;) {
        if (::getcwd(buffer.data(), size_t(buffer.size())))
            return QByteArray(buffer.constData());
        if (errno != ERANGE)
            return QFile::encodeName(QDir::currentPath());
        buffer.resize(buffer.size() * 2);
    }
}

// The path is kept as it is, only put below the current directory when relative.
QByteArray absolutized(const QByteArray &path)
{
    if (path.startsWith('/'))
        return path;
    QByteArray directory = currentDirectory();
    if (!directory.endsWith('/'))
        directory.append('/');
    return directory + path;
}

// Percent-encodes the bytes as they are, so that any name survives the trip
// through the URL; the characters a path may show as they are stay readable.
QUrl urlFromAbsolutePath(const QByteArray &absolutePath)
{
    return QUrl::fromEncoded("file://" + absolutePath.toPercentEncoding("/!$&'()*+,;=:@"), QUrl::StrictMode);
}

bool isDirectoryAt(const QByteArray &path, bool followFinalLink)
{
    struct stat attributes;
    const int status = followFinalLink ? ::stat(path.constData(), &attributes) : ::lstat(path.constData(), &attributes);
    return status == 0 && S_ISDIR(attributes.st_mode);
}

QByteArray resolvedPath(const QByteArray &path)
{
    char *resolved = ::realpath(path.constData(), nullptr);
    if (!resolved)
        return QByteArray();
    QByteArray result(resolved);
    std::free(resolved);
    return result;
}

} // namespace

namespace KVNURLAdditions {

QUrl absoluteURL(const QUrl &url)
{
    return url;
}

QUrl URLAppendingPathComponent(const QUrl &url, const QByteArray &component, bool isDirectory)
{
    return fileURLWithPath(appendingPathComponent(posixPathBytes(url), component), isDirectory);
}

QUrl URLAppendingPathComponent(const QUrl &url, const QString &component, bool isDirectory)
{
    return URLAppendingPathComponent(url, QFile::encodeName(component), isDirectory);
}

QUrl URLAppendingPathComponent(const QUrl &url, const char *component, bool isDirectory)
{
    return URLAppendingPathComponent(url, QByteArray(component), isDirectory);
}

QUrl URLDeletingLastPathComponent(const QUrl &url)
{
    // The encoded text, scheme and escapes included, is cut as a path on purpose.
    const QByteArray absoluteString = url.toString(QUrl::FullyEncoded).toLatin1();
    const QByteArray rest = deletingLastPathComponent(absoluteString);
    if (rest.isEmpty())
        throw std::invalid_argument("URLDeletingLastPathComponent: no path left of \"" + absoluteString.toStdString() +
                                    "\"");
    return fileURLWithPath(rest);
}

QString posixPath(const QUrl &url)
{
    return QFile::decodeName(posixPathBytes(url));
}

QByteArray posixPathBytes(const QUrl &url)
{
    // Decoding the encoded form by hand keeps bytes that are not UTF-8.
    return withoutTrailingSlash(QByteArray::fromPercentEncoding(url.path(QUrl::FullyEncoded).toLatin1()));
}

QString lastPathComponent(const QUrl &url)
{
    return QString::fromLatin1(lastComponentOf(url.toString(QUrl::FullyEncoded).toLatin1()));
}

QUrl saneFileURL(const QUrl &url)
{
    if (url.isEmpty() || !url.isLocalFile())
        return url;
    const QByteArray path = saneFilePath(posixPathBytes(url));
    return path.isEmpty() ? QUrl() : urlFromAbsolutePath(path);
}

QByteArray saneFilePath(const QByteArray &path)
{
    struct stat attributes;
    if (path.isEmpty() || ::lstat(path.constData(), &attributes) != 0)
        return QByteArray();
    QByteArray result = resolvedPath(path);
    if (result.isEmpty()) {
        // A link that leads nowhere (dangling, a loop) stands for itself, in
        // its canonical directory.
        if (!S_ISLNK(attributes.st_mode))
            return QByteArray();
        const qsizetype slash = path.lastIndexOf('/');
        const QByteArray parent = slash < 0    ? QByteArrayLiteral(".")
                                  : slash == 0 ? QByteArrayLiteral("/")
                                               : path.left(slash);
        const QByteArray resolvedParent = resolvedPath(parent);
        if (resolvedParent.isEmpty())
            return QByteArray();
        result = appendingPathComponent(resolvedParent, path.mid(slash + 1));
    }
    if (result != "/" && isDirectoryAt(result, false))
        result.append('/');
    return result;
}

QUrl fileURLWithPath(const QByteArray &path, bool isDirectory)
{
    if (path.isEmpty())
        throw std::invalid_argument("fileURLWithPath: empty path");
    QByteArray absolutePath = absolutized(path);
    if (isDirectory && !absolutePath.endsWith('/'))
        absolutePath.append('/');
    return urlFromAbsolutePath(absolutePath);
}

QUrl fileURLWithPath(const QByteArray &path)
{
    if (path.isEmpty())
        throw std::invalid_argument("fileURLWithPath: empty path");
    const QByteArray absolutePath = absolutized(path);
    return fileURLWithPath(absolutePath, isDirectoryAt(absolutePath, true));
}

} // namespace KVNURLAdditions
