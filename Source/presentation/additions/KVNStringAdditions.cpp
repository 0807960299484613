#include "KVNStringAdditions.h"

#include "KVNURLAdditions.h"

#include <QUrl>

#include <stdexcept>
#include <sys/stat.h>

namespace {

// Whether a component's leading decimal number (after blanks and a sign) is
// zero; no number at all counts as zero.
bool hasZeroIntValue(QStringView component)
{
    qsizetype i = 0;
    while (i < component.size() && component[i].isSpace())
        ++i;
    if (i < component.size() && (component[i] == u'+' || component[i] == u'-'))
        ++i;
    for (; i < component.size(); ++i) {
        const char16_t c = component[i].unicode();
        if (c < u'0' || c > u'9')
            break;
        if (c != u'0')
            return false;
    }
    return true;
}

} // namespace

namespace KVNStringAdditions {

QString coerceToURL(const QString &string)
{
    const QString copy = string;
    const QUrl url(copy, QUrl::StrictMode);
    if (!url.isValid() || !url.isLocalFile())
        return copy;
    // The item itself decides: a link to a directory is not a directory here.
    struct stat attributes;
    const QByteArray path = KVNURLAdditions::posixPathBytes(url);
    if (path.isEmpty() || ::lstat(path.constData(), &attributes) != 0)
        return copy;
    if (S_ISDIR(attributes.st_mode) && !copy.isEmpty() && !copy.endsWith(u'/'))
        return copy + u'/';
    return copy;
}

QString shortHostnameForLabel(const QString &string)
{
    if (string.isEmpty())
        return QStringLiteral(""); // empty, not null
    const auto components = QStringView(string).split(u'.');
    for (const auto &component : components) {
        if (hasZeroIntValue(component))
            return components.first().toString();
    }
    return string;
}

QString truncateCenterToFit(const QString &string, uint maxLength)
{
    if (string.size() <= qsizetype(maxLength))
        return string;
    if (maxLength == 0)
        throw std::out_of_range("truncateCenterToFit: a non-empty string cannot fit in 0 units");
    const qsizetype head = maxLength / 2;
    const qsizetype tail = qsizetype(maxLength) - head - 1;
    return string.left(head) + QChar(0x2026) + string.right(tail);
}

} // namespace KVNStringAdditions
