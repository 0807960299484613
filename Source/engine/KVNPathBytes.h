#pragma once

#include <QByteArray>
#include <QString>

// File names are bytes. These helpers derive from them without losing any:
// the pairing key, and the text a person reads.
namespace KVNPathBytes {

// Lower-cases one name: as Unicode when it is valid UTF-8, otherwise only its
// ASCII letters, so that a name that is not text still pairs with itself.
QByteArray lowercaseName(const QByteArray &name);

// Lower-cases a path component by component, with the same rule per component.
QByteArray lowercasePath(const QByteArray &path);

// Text for display: valid UTF-8 as it is, every byte that is not shown as \xHH.
QString displayString(const QByteArray &bytes);

// The part after the last "/" (the whole when there is none).
QByteArray lastComponent(const QByteArray &path);

// The extension of a name without the dot, or empty.
QByteArray pathExtension(const QByteArray &name);

} // namespace KVNPathBytes
