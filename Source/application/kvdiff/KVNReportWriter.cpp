#include "KVNReportWriter.h"

#include "KVNDiffResult.h"
#include "KVNPathBytes.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QStringDecoder>

namespace {

const char *typeName(const std::optional<KVNFileAttributes> &attrs)
{
    if (!attrs)
        return "unknown";
    switch (attrs->fileType) {
    case KVNFileType::Directory:
        return "directory";
    case KVNFileType::SymbolicLink:
        return "symlink";
    case KVNFileType::Other:
        return "special";
    case KVNFileType::Regular:
        break;
    }
    return "file";
}

bool isText(const QByteArray &bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8);
    (void)decoder.decode(bytes);
    return !decoder.hasError();
}

// A path for JSON: readable text, and the exact bytes beside it when the
// name is not text, so that nothing is lost.
void putPath(QJsonObject &object, const QString &key, const QByteArray &bytes)
{
    object.insert(key, KVNPathBytes::displayString(bytes));
    if (!isText(bytes))
        object.insert(key + QStringLiteral("Base64"), QString::fromLatin1(bytes.toBase64()));
}

QString relativeWithoutDot(const QByteArray &relative)
{
    return KVNPathBytes::displayString(relative.startsWith("./") ? relative.mid(2) : relative);
}

} // namespace

std::vector<KVNReportRow> KVNReportWriter::visibleRows(KVNDirCompDocument &document)
{
    std::vector<KVNReportRow> rows;
    // Depth first, with an explicit stack so a deep tree cannot exhaust ours.
    std::vector<KVNReportRow> pending;
    const auto top = document.filteredTopLevelRows();
    for (auto it = top.rbegin(); it != top.rend(); ++it)
        pending.push_back({*it, 1});
    while (!pending.empty()) {
        KVNReportRow row = std::move(pending.back());
        pending.pop_back();
        if (auto children = document.cachedFilteredChildrenForElement(row.element))
            for (auto it = children->rbegin(); it != children->rend(); ++it)
                pending.push_back({*it, row.depth + 1});
        rows.push_back(std::move(row));
    }
    return rows;
}

bool KVNReportWriter::hasDifferences(KVNDirCompDocument &document)
{
    const KVNPredicatePtr exclusion = document.exclusionPredicate();
    std::vector<KVNDirDiffTableElementPtr> pending;
    for (const auto &row : document.sourceArrayController()->arrangedObjects())
        if (row->depthHint() == 1)
            pending.push_back(row);
    while (!pending.empty()) {
        auto row = std::move(pending.back());
        pending.pop_back();
        if (KVNPredicateEvaluate(exclusion, *row))
            continue; // excluded, with everything below it
        if (!row->leftNode() || !row->rightNode())
            return true;
        const int32_t result = row->diffResult();
        if (!row->isDirectory() && result != KVNDiffResultSame)
            return true;
        if (row->isDirectory() &&
            (result == KVNDiffResultDiffer || result == KVNDiffResultSingle || result == KVNDiffResultDifferSingle))
            return true;
        for (auto &child : row->childElements())
            pending.push_back(std::move(child));
    }
    return false;
}

QString KVNReportWriter::rootPath(bool left) const
{
    return KVNPathBytes::displayString(left ? originalRoot_ : modifiedRoot_);
}

QJsonValue KVNReportWriter::side(const KVNFileNodePtr &node) const
{
    if (!node)
        return QJsonValue::Null;
    QJsonObject object;
    putPath(object, QStringLiteral("path"), node->relativePath());
    const auto attrs = node->fileAttrs();
    object.insert(QStringLiteral("type"), QString::fromLatin1(typeName(attrs)));
    if (attrs && attrs->hasSize)
        object.insert(QStringLiteral("size"), qint64(attrs->fileSize));
    if (attrs) {
        const KVNDate date = attrs->modificationDate;
        const QDateTime time = QDateTime::fromSecsSinceEpoch(date.seconds, Qt::UTC);
        object.insert(QStringLiteral("modified"),
                      time.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss.")) +
                          QStringLiteral("%1Z").arg(date.nanoseconds, 9, 10, QLatin1Char('0')));
    }
    object.insert(QStringLiteral("diffResult"), node->diffResult());
    return object;
}

void KVNReportWriter::writeJson(const std::vector<KVNReportRow> &rows, QJsonObject fields,
                                const std::function<void(const QByteArray &)> &out) const
{
    // The rows go out one at a time: a million of them never stand in memory
    // as one document. The keys come out in the order a whole document has.
    putPath(fields, QStringLiteral("original"), originalRoot_);
    putPath(fields, QStringLiteral("modified"), modifiedRoot_);
    fields.insert(QStringLiteral("rows"), QJsonArray());
    const QByteArray whole = QJsonDocument(fields).toJson(QJsonDocument::Compact);
    const QByteArray slot = QByteArrayLiteral("\"rows\":[]");
    const qsizetype at = whole.indexOf(slot) + slot.size() - 1;
    out(whole.left(at));
    QByteArray batch;
    bool first = true;
    for (const auto &row : rows) {
        QJsonObject object;
        putPath(object, QStringLiteral("path"), row.element->relativePath());
        object.insert(QStringLiteral("depth"), row.depth);
        const int32_t result = row.element->diffResult();
        object.insert(QStringLiteral("diffResult"), result);
        object.insert(QStringLiteral("result"), QString::fromLatin1(KVNDiffResultName(result)));
        object.insert(QStringLiteral("mergeDirection"),
                      QString::fromLatin1(KVNMergeDirectionWord(row.element->mergeDirection())));
        object.insert(QStringLiteral("left"), side(row.element->leftNode()));
        object.insert(QStringLiteral("right"), side(row.element->rightNode()));
        if (!first)
            batch += ',';
        first = false;
        batch += QJsonDocument(object).toJson(QJsonDocument::Compact);
        if (batch.size() >= 1 << 16) {
            out(batch);
            batch.clear();
        }
    }
    batch += whole.mid(at);
    out(batch);
}

QString KVNReportWriter::textLine(const KVNDirDiffTableElementPtr &row) const
{
    const auto left = row->leftNode();
    const auto right = row->rightNode();
    if (!left || !right) {
        const auto &node = left ? left : right;
        const QByteArray relative = node->relativePath();
        const qsizetype slash = relative.lastIndexOf('/');
        const QString directory = relative.left(slash) == "." ? rootPath(bool(left))
                                                              : rootPath(bool(left)) + QLatin1Char('/') +
                                                                    relativeWithoutDot(relative.left(slash));
        return QStringLiteral("Only in %1: %2").arg(directory, KVNPathBytes::displayString(relative.mid(slash + 1)));
    }
    const QString leftPath = rootPath(true) + QLatin1Char('/') + relativeWithoutDot(left->relativePath());
    const QString rightPath = rootPath(false) + QLatin1Char('/') + relativeWithoutDot(right->relativePath());
    const auto leftType = QString::fromLatin1(typeName(left->fileAttrs()));
    const auto rightType = QString::fromLatin1(typeName(right->fileAttrs()));
    const int32_t result = row->diffResult();
    if (leftType != rightType && (left->isDirectory() || right->isDirectory()))
        return QStringLiteral("File %1 is a %2 while file %3 is a %4").arg(leftPath, leftType, rightPath, rightType);
    const QString noun = row->isDirectory() ? QStringLiteral("Directories") : QStringLiteral("Files");
    switch (result) {
    case KVNDiffResultSame:
        return QStringLiteral("%1 %2 and %3 are identical").arg(noun, leftPath, rightPath);
    case KVNDiffResultDiffer:
    case KVNDiffResultDifferSingle:
        return QStringLiteral("%1 %2 and %3 differ").arg(noun, leftPath, rightPath);
    case KVNDiffResultSingle:
        // Below a directory something is single; a file pair that is single could not be read.
        if (row->isDirectory())
            return QStringLiteral("%1 %2 and %3 differ").arg(noun, leftPath, rightPath);
        break;
    default:
        break;
    }
    return QStringLiteral("%1 %2 and %3 could not be compared").arg(noun, leftPath, rightPath);
}
