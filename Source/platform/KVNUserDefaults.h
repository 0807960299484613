#pragma once

#include <QSettings>
#include <QString>
#include <QVariant>
#include <QVariantMap>

#include <memory>
#include <mutex>

// The user defaults: persistent values over registered fallbacks. One shared
// instance per process; its file can be moved (tests, or KORVANE_SETTINGS_PATH).
class KVNUserDefaults {
public:
    static KVNUserDefaults &standardUserDefaults();

    // Point the store at a settings file of its own, e.g. for an isolated test.
    void setStoragePath(const QString &iniPath);
    void registerDefaults(const QVariantMap &registrationDictionary);

    QVariant objectForKey(const QString &key) const;
    QString stringForKey(const QString &key) const;
    bool boolForKey(const QString &key) const;
    qint64 integerForKey(const QString &key) const;
    void setObject(const QVariant &value, const QString &key);
    void removeObjectForKey(const QString &key);

private:
    KVNUserDefaults();
    mutable std::mutex mutex_;
    std::unique_ptr<QSettings> settings_;
    QVariantMap registered_;
};

// The defaults the application registers before anything else runs.
void KVNRegisterApplicationDefaults();
// The text of the default exclusion: the usual metadata and source-control names.
QString KVNDefaultExclusionPredicateFormat();
