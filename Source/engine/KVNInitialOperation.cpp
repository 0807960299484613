#include "KVNInitialOperation.h"

#include "KVNMainThread.h"

void KVNInitialOperation::main()
{
    auto self = std::static_pointer_cast<KVNInitialOperation>(shared_from_this());
    KVNMainThread::post([delegate = delegate_, self] {
        if (auto target = delegate.lock())
            target->startedInitialOperation(self.get());
    });
}
