#pragma once

#include "KVNDirCompDocument.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <functional>
#include <vector>

// One row of a report: a row as the outline shows it, with its depth in the
// expanded outline.
struct KVNReportRow {
    KVNDirDiffTableElementPtr element;
    int depth;
};

// Turns what a comparison document shows into text or JSON.
class KVNReportWriter {
public:
    KVNReportWriter(QByteArray originalRoot, QByteArray modifiedRoot)
        : originalRoot_(std::move(originalRoot)), modifiedRoot_(std::move(modifiedRoot))
    {}

    // Every row the outline would show, in outline order, all expanded.
    static std::vector<KVNReportRow> visibleRows(KVNDirCompDocument &document);
    // Whether anything differs or stands on one side, after exclusion and
    // whatever the display filter.
    static bool hasDifferences(KVNDirCompDocument &document);

    // The JSON report of rows, with fields of the caller's beside them, in
    // pieces to out; the pieces together are one compact JSON document.
    void writeJson(const std::vector<KVNReportRow> &rows, QJsonObject fields,
                   const std::function<void(const QByteArray &)> &out) const;
    QString textLine(const KVNDirDiffTableElementPtr &row) const;

private:
    QJsonValue side(const KVNFileNodePtr &node) const;
    QString rootPath(bool left) const;

    QByteArray originalRoot_;
    QByteArray modifiedRoot_;
};
