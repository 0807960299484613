#pragma once

#include <QString>

#include <exception>
#include <string>

// A named exception, raised where a pair of files cannot be opened or a scan's
// root cannot be resolved. Everything else that fails becomes a value.
class KVNException : public std::exception {
public:
    KVNException(QString name, QString reason)
        : name_(std::move(name)), reason_(std::move(reason)),
          what_((name_ + QStringLiteral(": ") + reason_).toStdString())
    {}
    const QString &name() const { return name_; }
    const QString &reason() const { return reason_; }
    const char *what() const noexcept override { return what_.c_str(); }

private:
    QString name_;
    QString reason_;
    std::string what_;
};
