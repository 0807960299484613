#pragma once

#include <QString>

// The process log: free text lines, no levels, no categories.
void KVNLog(const QString &line);
