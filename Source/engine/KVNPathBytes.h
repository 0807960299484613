#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QString>

#include <cstdint>

// File names are bytes. These helpers derive from them without losing any:
// the pairing key, and the text a person reads.
namespace KVNPathBytes {

// Lower-cases one name: as Unicode when it is valid UTF-8, otherwise only its
// ASCII letters, so that a name that is not text still pairs with itself.
QByteArray lowercaseName(QByteArrayView name);

// Lower-cases a path component by component, with the same rule per component.
QByteArray lowercasePath(const QByteArray &path);

// Text for display: valid UTF-8 as it is, every byte that is not shown as \xHH.
QString displayString(const QByteArray &bytes);

// The part after the last "/" (the whole when there is none).
QByteArray lastComponent(const QByteArray &path);

// The extension of a name without the dot, or empty.
QByteArray pathExtension(const QByteArray &name);

// FNV-1a, which can be carried on from a prefix: a key hashed whole and one
// hashed as its directory's state plus its name give the same value.
constexpr uint64_t kHashSeed = 0xcbf29ce484222325ull;
inline uint64_t hashBytes(uint64_t state, const char *bytes, qsizetype size)
{
    for (qsizetype i = 0; i < size; ++i)
        state = (state ^ static_cast<unsigned char>(bytes[i])) * 0x100000001b3ull;
    return state;
}

// hashBytes of lowercaseName(name), without making it when the name is ASCII.
uint64_t hashLowercaseName(uint64_t state, QByteArrayView name);
// Whether lowercaseName(name) equals the bytes given, with the same shortcut.
bool lowercaseNameEquals(QByteArrayView name, const char *bytes, qsizetype size);
// Whether two names lower-case to the same bytes.
bool lowercaseNamesEqual(QByteArrayView a, QByteArrayView b);

} // namespace KVNPathBytes
