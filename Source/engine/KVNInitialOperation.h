#pragma once

#include "KVNOperation.h"

#include <memory>

class KVNInitialOperation;

class KVNInitialOperationDelegate {
public:
    virtual ~KVNInitialOperationDelegate() = default;
    // On the main thread, when a run's first operation has started.
    virtual void startedInitialOperation(KVNInitialOperation *operation) = 0;
};

// The first operation of a run: tells the delegate, on the main thread without waiting.
class KVNInitialOperation : public KVNOperation {
public:
    explicit KVNInitialOperation(std::weak_ptr<KVNInitialOperationDelegate> delegate) : delegate_(std::move(delegate))
    {}

protected:
    void main() override;

private:
    std::weak_ptr<KVNInitialOperationDelegate> delegate_;
};
