#include "KVNUserDefaults.h"

#include "KVNPredicate.h"

#include <QStandardPaths>

KVNUserDefaults::KVNUserDefaults()
{
    const QByteArray path = qgetenv("KORVANE_SETTINGS_PATH");
    if (!path.isEmpty())
        settings_ = std::make_unique<QSettings>(QString::fromLocal8Bit(path), QSettings::IniFormat);
    else
        settings_ = std::make_unique<QSettings>(QSettings::IniFormat, QSettings::UserScope, QStringLiteral("Korvane"),
                                                QStringLiteral("Korvane"));
}

KVNUserDefaults &KVNUserDefaults::standardUserDefaults()
{
    static KVNUserDefaults defaults;
    return defaults;
}

void KVNUserDefaults::setStoragePath(const QString &iniPath)
{
    std::lock_guard lock(mutex_);
    settings_ = std::make_unique<QSettings>(iniPath, QSettings::IniFormat);
}

void KVNUserDefaults::registerDefaults(const QVariantMap &registrationDictionary)
{
    std::lock_guard lock(mutex_);
    for (auto it = registrationDictionary.begin(); it != registrationDictionary.end(); ++it)
        registered_.insert(it.key(), it.value());
}

QVariant KVNUserDefaults::objectForKey(const QString &key) const
{
    std::lock_guard lock(mutex_);
    const QVariant stored = settings_->value(key);
    return stored.isValid() ? stored : registered_.value(key);
}

QString KVNUserDefaults::stringForKey(const QString &key) const
{
    return objectForKey(key).toString();
}

bool KVNUserDefaults::boolForKey(const QString &key) const
{
    return objectForKey(key).toBool();
}

qint64 KVNUserDefaults::integerForKey(const QString &key) const
{
    return objectForKey(key).toLongLong();
}

void KVNUserDefaults::setObject(const QVariant &value, const QString &key)
{
    std::lock_guard lock(mutex_);
    settings_->setValue(key, value);
    settings_->sync();
}

void KVNUserDefaults::removeObjectForKey(const QString &key)
{
    std::lock_guard lock(mutex_);
    settings_->remove(key);
    settings_->sync();
}

QString KVNDefaultExclusionPredicateFormat()
{
    std::vector<KVNPredicatePtr> names;
    for (const char *name : {".DS_Store", "CVS", ".svn", ".git", ".hg"})
        names.push_back(KVNPredicate::predicateWithFormat(QStringLiteral("spotlightItemFSName LIKE[c] %@"),
                                                          {KVNValue::fromString(QString::fromLatin1(name))}));
    return KVNPredicate::orPredicateWithSubpredicates(names)->predicateFormat();
}

void KVNRegisterApplicationDefaults()
{
    KVNUserDefaults::standardUserDefaults().registerDefaults({
        {QStringLiteral("showSessionChooserOnInit"), true},
        {QStringLiteral("concurrencySelectionTag"), 0},
        {QStringLiteral("concurrencySelectionMax"), 16},
        {QStringLiteral("enableWindowAnimations"), true},
        {QStringLiteral("KVNDefaultEnableDiagnostics"), false},
        {QStringLiteral("defaultExclusionPredicate"), KVNDefaultExclusionPredicateFormat()},
    });
}
