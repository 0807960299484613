#pragma once

#include <QObject>
#include <QString>
#include <QVariantMap>

#include <concepts>
#include <memory>

// Brings a change notification from any thread to its observer on the main
// thread. Delivery always goes through the event loop, also when the change
// happens on the main thread, so an observer is never called inside the change
// that caused it, and notifications arrive in the order they were posted.
class KVNSafeObserver {
public:
    virtual ~KVNSafeObserver() = default;

    // Main thread only. A null context is a notification that had none.
    virtual void saferObserveValueForKeyPath(const QString &keyPath, const void *object, const QVariantMap &change,
                                             void *context) = 0;
};

// Builds the record of one notification (the keys "keyPath", "object",
// "change", and "context" only when context is not null) and posts its
// delivery to observer without waiting. May be called on any thread. The record
// keeps object alive until delivery. lifetimeReceiver lives on the main thread
// and outlives observer's use (usually it is the observer itself): once it is
// destroyed, nothing more is delivered. A null observer, receiver or object
// throws std::invalid_argument.
void prepareSafeObserveForKeyPath(KVNSafeObserver *observer, QObject *lifetimeReceiver, const QString &keyPath,
                                  std::shared_ptr<const void> object, QVariantMap change, void *context);

// The usual case: the observer is a QObject and bounds its own deliveries.
template <class Observer>
requires std::derived_from<Observer, KVNSafeObserver> && std::derived_from<Observer, QObject>
void prepareSafeObserveForKeyPath(Observer *observer, const QString &keyPath, std::shared_ptr<const void> object,
                                  QVariantMap change, void *context)
{
    prepareSafeObserveForKeyPath(static_cast<KVNSafeObserver *>(observer), static_cast<QObject *>(observer), keyPath,
                                 std::move(object), std::move(change), context);
}

// Unpacks a record built above and calls observer->saferObserveValueForKeyPath.
// Asserts that it runs on the main thread ("Must run on the main thread!");
// where assertions are compiled out it logs that and drops the notification,
// as it does for a record without key path or object.
void dispatchObservationOnMainThread(KVNSafeObserver *observer, const QVariantMap &observation);
