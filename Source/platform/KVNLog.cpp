#include "KVNLog.h"

#include <QDebug>

void KVNLog(const QString &line)
{
    qWarning().noquote() << line;
}
