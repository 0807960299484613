#pragma once

#include "KVNDirCompDocument.h"
#include "KVNReportWriter.h"

#include <QStringList>

// Keeps a comparison open and prints the table again after every completed
// update run: JSON Lines with a rising sequence, or text lines that changed,
// prefixed "+" / "-", under a time stamp. Output is flushed per report.
class KVNLiveReport {
public:
    KVNLiveReport(std::shared_ptr<KVNDirCompDocument> document, KVNReportWriter writer, bool json,
                  KVNFilterAction filter);

    // Prints the report of the run that just completed.
    void printReport();
    bool lastReportDiffers() const { return lastDiffers_; }

private:
    std::shared_ptr<KVNDirCompDocument> document_;
    KVNReportWriter writer_;
    bool json_;
    KVNFilterAction filter_;
    qint64 sequence_ = 0;
    QStringList lastLines_;
    bool lastDiffers_ = false;
};

// Runs the event loop until SIGINT or SIGTERM, or end of standard input when
// asked; returns normally in every case, so that teardown runs.
void KVNRunUntilInterrupted(bool untilEndOfInput);
