#pragma once

#include <QString>

// Small operations on strings that the rest of the system takes for granted.
// Lengths and positions count UTF-16 units, as QString does; composed
// characters and surrogate pairs get no special care.
namespace KVNStringAdditions {

// The string itself, with "/" added when it is the text of a file URL naming a
// directory (the item itself, a final symbolic link is not followed) and does
// not end in "/" yet. Anything else, a missing item included, comes back as it is.
[[nodiscard]] QString coerceToURL(const QString &string);

// The first "."-separated component, as soon as some component has no leading
// decimal number other than zero; otherwise the whole string. So "build.local"
// gives "build" and "10.1.2.3" stays whole, while "10.0.1.5" gives "10": that is
// accepted, it is no test for numeric addresses.
[[nodiscard]] QString shortHostnameForLabel(const QString &string);

// The string if it has at most maxLength units; otherwise its first maxLength/2
// units, an ellipsis (U+2026) and its last maxLength - maxLength/2 - 1 units,
// exactly maxLength units in all. A longer string cannot fit in zero units:
// maxLength 0 throws std::out_of_range.
[[nodiscard]] QString truncateCenterToFit(const QString &string, uint maxLength);

} // namespace KVNStringAdditions
