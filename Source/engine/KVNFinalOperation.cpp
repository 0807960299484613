#include "KVNFinalOperation.h"

#include "KVNMainThread.h"

void KVNFinalOperation::main()
{
    auto self = std::static_pointer_cast<KVNFinalOperation>(shared_from_this());
    KVNMainThread::post([delegate = delegate_, self] {
        if (auto target = delegate.lock())
            target->completedFinalOperation(self.get());
    });
}
