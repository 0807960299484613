#include "KVNLiveReport.h"

#include "KVNPathBytes.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QJsonDocument>
#include <QSet>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

int gSignalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    // Only async-signal-safe work here: the event loop does the rest.
    [[maybe_unused]] auto ignored = ::write(gSignalPipe[1], &byte, 1);
}

void writeOut(const QByteArray &bytes)
{
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
}

} // namespace

KVNLiveReport::KVNLiveReport(std::shared_ptr<KVNDirCompDocument> document, KVNReportWriter writer, bool json,
                             KVNFilterAction filter)
    : document_(std::move(document)), writer_(std::move(writer)), json_(json), filter_(filter)
{}

void KVNLiveReport::printReport()
{
    document_->performFilterAction(filter_);
    const auto rows = KVNReportWriter::visibleRows(*document_);
    lastDiffers_ = KVNReportWriter::hasDifferences(*document_);
    const bool first = sequence_ == 0;
    ++sequence_;
    if (json_) {
        QJsonObject fields;
        fields.insert(QStringLiteral("sequence"), sequence_);
        if (!first)
            fields.insert(QStringLiteral("trigger"), KVNPathBytes::displayString(document_->lastTriggeringEventPath()));
        writer_.writeJson(rows, fields, writeOut);
        writeOut("\n");
    } else {
        QStringList lines;
        for (const auto &row : rows)
            lines << writer_.textLine(row.element);
        if (first) {
            for (const QString &line : lines)
                writeOut(line.toUtf8() + '\n');
        } else {
            writeOut(QStringLiteral("@ %1 update #%2\n")
                         .arg(QDateTime::currentDateTime().toString(Qt::ISODate))
                         .arg(sequence_ - 1)
                         .toUtf8());
            // Lines that went, then lines that came, each in outline order.
            const QSet<QString> before(lastLines_.begin(), lastLines_.end());
            const QSet<QString> after(lines.begin(), lines.end());
            for (const QString &line : lastLines_)
                if (!after.contains(line))
                    writeOut("- " + line.toUtf8() + '\n');
            for (const QString &line : lines)
                if (!before.contains(line))
                    writeOut("+ " + line.toUtf8() + '\n');
        }
        lastLines_ = lines;
    }
    std::fflush(stdout);
}

void KVNRunUntilInterrupted(bool untilEndOfInput)
{
    if (::pipe2(gSignalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    ::sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
    QSocketNotifier interruptions(gSignalPipe[0], QSocketNotifier::Read);
    QObject::connect(&interruptions, &QSocketNotifier::activated, [] { QCoreApplication::quit(); });

    std::unique_ptr<QSocketNotifier> input;
    if (untilEndOfInput) {
        input = std::make_unique<QSocketNotifier>(STDIN_FILENO, QSocketNotifier::Read);
        QObject::connect(input.get(), &QSocketNotifier::activated, [&input] {
            char buffer[4096];
            const ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
                input->setEnabled(false);
                QCoreApplication::quit();
            }
        });
    }
    QCoreApplication::exec();
    ::signal(SIGINT, SIG_DFL);
    ::signal(SIGTERM, SIG_DFL);
}
