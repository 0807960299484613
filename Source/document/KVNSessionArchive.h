#pragma once

#include "KVNPredicate.h"

#include <QByteArray>
#include <QString>

#include <optional>

// What a saved comparison holds: the question, not the answer.
struct KVNSessionContents {
    QString documentClass = QStringLiteral("KVNDirCompDocument");
    // As read. Written in single precision: the document's version is the
    // float 0.1 (bits 0x3DCCCCCD), and nullopt writes that.
    std::optional<double> documentVersion = double(0.1f);
    // Absolute paths of the roots, as bytes; nullopt stands for NSNull (or a
    // missing key when reading).
    std::optional<QByteArray> originalURL;
    std::optional<QByteArray> modifiedURL;
    std::optional<QByteArray> ancestorURL;
    KVNPredicatePtr exclusionPredicate; // null stands for NSNull
};

// The session file: a binary keyed archive of one dictionary with the keys
// "documentClass", "documentVersion", "originalURL", "modifiedURL",
// "ancestorURL" and "exclusionPredicate", laid out as the platform's archiver
// lays it out, so that either side reads the other's files. The document
// applies the class and version checks; this is only the container.
namespace KVNSessionArchive {

// URLs are file URLs without a base, percent-encoded from the path's bytes,
// with a trailing slash when the path is a directory on disk. TRUEPREDICATE
// and FALSEPREDICATE are written as an AND and an OR without subpredicates,
// which mean the same and which every reader of compound predicates knows.
// Object constants have no archived form and are written as nil; a string
// constant holding U+0000 is cut there.
QByteArray archive(const KVNSessionContents &contents);

// Reads the binary or the XML form. The predicate may be archived objects or
// a string in predicate text form. Anything that is not a well-formed session
// archive gives nullopt and a one-line reason in *error (which may be null).
std::optional<KVNSessionContents> unarchive(const QByteArray &data, QString *error);

// "file:///abs/path/" for path, as archive() writes it; a relative path is
// taken from the working directory.
QString fileURLString(const QByteArray &path);
// The path of a local file URL ("file:///…" or "file://localhost/…"),
// percent-decoded, without its trailing slash.
std::optional<QByteArray> pathFromFileURL(const QString &url, QString *error);

// Compound predicates deeper than this are refused: the predicate code walks
// trees recursively, and each exclusion a user adds is one level.
constexpr int maxPredicateDepth()
{
    return KVNPredicate::maxNestingDepth();
}
// Predicates whose tree, with shared subtrees counted each time they are
// used, holds more nodes than this are refused.
constexpr int maxPredicateNodes()
{
    return 1'000'000;
}

} // namespace KVNSessionArchive
