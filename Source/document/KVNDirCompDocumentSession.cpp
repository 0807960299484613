// Saving and reading a comparison session: the question, not the answer.
#include "KVNDirCompDocument.h"

#include "KVNPathBytes.h"
#include "KVNSessionArchive.h"

#include <sys/stat.h>

namespace {

bool isDirectory(const std::optional<QByteArray> &path)
{
    struct stat info;
    return path && !path->isEmpty() && ::stat(path->constData(), &info) == 0 && S_ISDIR(info.st_mode);
}

QString displayPath(const std::optional<QByteArray> &path)
{
    return path ? KVNPathBytes::displayString(*path) : QStringLiteral("(null)");
}

} // namespace

QByteArray KVNDirCompDocument::dataOfType(const QString &) const
{
    KVNSessionContents contents;
    contents.documentClass = documentClassName();
    contents.documentVersion = double(documentVersion());
    contents.originalURL = originalURL_.isEmpty() ? std::nullopt : std::optional<QByteArray>(originalURL_);
    contents.modifiedURL = modifiedURL_.isEmpty() ? std::nullopt : std::optional<QByteArray>(modifiedURL_);
    contents.ancestorURL = ancestorURL_;
    contents.exclusionPredicate = exclusionPredicate_;
    return KVNSessionArchive::archive(contents);
}

bool KVNDirCompDocument::readFromData(const QByteArray &data, KVNDocumentError *error)
{
    QString reason;
    const auto contents = KVNSessionArchive::unarchive(data, &reason);
    if (!contents) {
        if (error)
            *error = {QStringLiteral("KVNDirCompDocument"), 0,
                      QStringLiteral("The session file could not be read: %1").arg(reason)};
        return false;
    }
    // The version is read as a float and must equal exactly: no migration, no range.
    if (contents->documentClass != documentClassName() || !contents->documentVersion ||
        float(*contents->documentVersion) != documentVersion()) {
        if (error)
            *error = {
                QStringLiteral("DocumentVersionMismatch"), 0,
                QStringLiteral("This document's version is not compatible with this version of the application.")};
        return false;
    }
    // Taken as they are: no normalisation on the way in.
    originalURL_ = contents->originalURL.value_or(QByteArray());
    modifiedURL_ = contents->modifiedURL.value_or(QByteArray());
    ancestorURL_ = contents->ancestorURL;
    setExclusionPredicate(contents->exclusionPredicate);

    bool originalMissing = false;
    if (!isDirectory(contents->originalURL)) {
        originalMissing = true;
        if (error)
            *error = {QStringLiteral("KVNDirCompDocument"), 0,
                      QStringLiteral("The \"Original\" directory path (%1) could not be found.")
                          .arg(displayPath(contents->originalURL))};
    }
    if (!isDirectory(contents->modifiedURL)) {
        // The right-hand message replaces the left one.
        if (error)
            *error = {QStringLiteral("KVNDirCompDocument"), 0,
                      QStringLiteral("The \"Modified\" directory path (%1) could not be found.")
                          .arg(displayPath(contents->modifiedURL))};
        return false;
    }
    if (originalMissing)
        return false;
    updateChangeCountCleared();
    return true;
}
