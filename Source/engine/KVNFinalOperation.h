#pragma once

#include "KVNOperation.h"

#include <memory>

class KVNFinalOperation;

class KVNFinalOperationDelegate {
public:
    virtual ~KVNFinalOperationDelegate() = default;
    // On the main thread, when a run's last operation has run.
    virtual void completedFinalOperation(KVNFinalOperation *operation) = 0;
};

// The last operation of a run: tells the delegate, on the main thread without waiting.
class KVNFinalOperation : public KVNOperation {
public:
    explicit KVNFinalOperation(std::weak_ptr<KVNFinalOperationDelegate> delegate) : delegate_(std::move(delegate)) {}

protected:
    void main() override;

private:
    std::weak_ptr<KVNFinalOperationDelegate> delegate_;
};
