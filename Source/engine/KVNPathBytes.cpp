#include "KVNPathBytes.h"

#include <QStringDecoder>

#include <cstring>

namespace {

bool isAscii(QByteArrayView bytes)
{
    for (char c : bytes)
        if (static_cast<unsigned char>(c) >= 0x80)
            return false;
    return true;
}

bool isValidUtf8(QByteArrayView bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString ignored = decoder.decode(bytes);
    return !decoder.hasError();
}

// Length of the valid UTF-8 sequence at p, or 0 when the byte there starts none.
int utf8SequenceLength(const unsigned char *p, qsizetype remaining)
{
    const unsigned char c = p[0];
    int length;
    char32_t minimum;
    if (c < 0x80)
        return 1;
    if ((c & 0xE0) == 0xC0) {
        length = 2;
        minimum = 0x80;
    } else if ((c & 0xF0) == 0xE0) {
        length = 3;
        minimum = 0x800;
    } else if ((c & 0xF8) == 0xF0) {
        length = 4;
        minimum = 0x10000;
    } else {
        return 0;
    }
    if (remaining < length)
        return 0;
    char32_t value = c & (0x7F >> length);
    for (int i = 1; i < length; ++i) {
        if ((p[i] & 0xC0) != 0x80)
            return 0;
        value = (value << 6) | (p[i] & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))
        return 0;
    return length;
}

char asciiLower(char c)
{
    return c >= 'A' && c <= 'Z' ? char(c + 32) : c;
}

} // namespace

uint64_t KVNPathBytes::hashLowercaseName(uint64_t state, QByteArrayView name)
{
    if (!isAscii(name)) {
        const QByteArray lower = lowercaseName(name);
        return hashBytes(state, lower.constData(), lower.size());
    }
    for (char c : name)
        state = (state ^ static_cast<unsigned char>(asciiLower(c))) * 0x100000001b3ull;
    return state;
}

bool KVNPathBytes::lowercaseNameEquals(QByteArrayView name, const char *bytes, qsizetype size)
{
    if (!isAscii(name)) {
        const QByteArray lower = lowercaseName(name);
        return lower.size() == size && std::memcmp(lower.constData(), bytes, size_t(size)) == 0;
    }
    if (name.size() != size)
        return false;
    for (qsizetype i = 0; i < size; ++i) {
        if (asciiLower(name[i]) != bytes[i])
            return false;
    }
    return true;
}

bool KVNPathBytes::lowercaseNamesEqual(QByteArrayView a, QByteArrayView b)
{
    if (!isAscii(a) || !isAscii(b))
        return lowercaseName(a) == lowercaseName(b);
    if (a.size() != b.size())
        return false;
    for (qsizetype i = 0; i < a.size(); ++i)
        if (asciiLower(a[i]) != asciiLower(b[i]))
            return false;
    return true;
}

QByteArray KVNPathBytes::lowercaseName(QByteArrayView name)
{
    if (!isAscii(name) && isValidUtf8(name))
        return QString::fromUtf8(name).toLower().toUtf8();
    // ASCII, or not text: only the ASCII letters change.
    QByteArray result(name.data(), name.size());
    for (char &c : result)
        c = asciiLower(c);
    return result;
}

QByteArray KVNPathBytes::lowercasePath(const QByteArray &path)
{
    if (isAscii(path))
        return path.toLower();
    QByteArray result;
    result.reserve(path.size());
    qsizetype start = 0;
    for (;;) {
        const qsizetype slash = path.indexOf('/', start);
        const qsizetype end = slash < 0 ? path.size() : slash;
        result += lowercaseName(path.mid(start, end - start));
        if (slash < 0)
            break;
        result += '/';
        start = slash + 1;
    }
    return result;
}

QString KVNPathBytes::displayString(const QByteArray &bytes)
{
    if (isAscii(bytes))
        return QString::fromLatin1(bytes);
    QString result;
    result.reserve(bytes.size());
    const auto *p = reinterpret_cast<const unsigned char *>(bytes.constData());
    const qsizetype size = bytes.size();
    qsizetype i = 0;
    while (i < size) {
        const int length = utf8SequenceLength(p + i, size - i);
        if (length == 0) {
            result += QLatin1String("\\x") + QString::number(p[i], 16).toUpper().rightJustified(2, QLatin1Char('0'));
            ++i;
            continue;
        }
        result += QString::fromUtf8(reinterpret_cast<const char *>(p + i), length);
        i += length;
    }
    return result;
}

QByteArray KVNPathBytes::lastComponent(const QByteArray &path)
{
    const qsizetype slash = path.lastIndexOf('/');
    return slash < 0 ? path : path.mid(slash + 1);
}

QByteArray KVNPathBytes::pathExtension(const QByteArray &name)
{
    const qsizetype dot = name.lastIndexOf('.');
    if (dot <= 0 || dot == name.size() - 1)
        return QByteArray();
    return name.mid(dot + 1);
}
