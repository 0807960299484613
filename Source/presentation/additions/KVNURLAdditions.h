#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

// Operations on URLs that the rest of the system takes for granted. A file
// system path is bytes: the *Bytes and byte forms keep names that are not valid
// UTF-8 intact, the QString forms decode them for display only.
//
// "absoluteString" below is the URL's fully encoded text, QUrl::FullyEncoded.
namespace KVNURLAdditions {

// A QUrl carries no base URL, so every URL is its own absolute form.
[[nodiscard]] QUrl absoluteURL(const QUrl &url);

// A file URL for url's path with component added, whatever url's scheme. The
// path is joined like a plain path (repeated and trailing "/" dropped); a
// relative result is taken against the current directory; isDirectory adds
// the trailing "/".
[[nodiscard]] QUrl URLAppendingPathComponent(const QUrl &url, const QByteArray &component, bool isDirectory);
[[nodiscard]] QUrl URLAppendingPathComponent(const QUrl &url, const QString &component, bool isDirectory);
[[nodiscard]] QUrl URLAppendingPathComponent(const QUrl &url, const char *component, bool isDirectory);

// Deliberately not URL-aware: drops the last component of url's absoluteString
// as if that text were a plain path (so "file:///a/b%20c/d" becomes the relative
// path "file:/a/b%20c") and makes a file URL of the result, which therefore
// lies below the current directory. Callers that want a parent directory take
// posixPath() first. Throws std::invalid_argument when nothing is left.
[[nodiscard]] QUrl URLDeletingLastPathComponent(const QUrl &url);

// The decoded path, without a trailing "/" unless it is the root.
[[nodiscard]] QString posixPath(const QUrl &url);
[[nodiscard]] QByteArray posixPathBytes(const QUrl &url);

// The last component of the absoluteString, escapes and all: a name with a
// blank comes back with "%20". For a display name take posixPath() first.
[[nodiscard]] QString lastPathComponent(const QUrl &url);

// The file URL the rest of the system keeps for url. An empty or non-file URL
// comes back as it is. Otherwise the URL is rebuilt from the file system: the
// canonical absolute path, symbolic links resolved to their final target (a
// link that cannot be resolved stands for itself), and a directory ends in "/".
// A missing item gives an empty URL. No error is reported.
[[nodiscard]] QUrl saneFileURL(const QUrl &url);
// The byte-exact core of saneFileURL, on a path: empty when the item is missing.
[[nodiscard]] QByteArray saneFilePath(const QByteArray &path);

// A file URL for a path given as bytes. A relative path is taken against the
// current directory. Without isDirectory, the file system decides whether the
// URL ends in "/". Throws std::invalid_argument for an empty path.
[[nodiscard]] QUrl fileURLWithPath(const QByteArray &path, bool isDirectory);
[[nodiscard]] QUrl fileURLWithPath(const QByteArray &path);

} // namespace KVNURLAdditions
