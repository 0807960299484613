#include "KVNKVOAdditions.h"

#include "KVNMainThread.h"

#include <QDebug>

#include <stdexcept>

namespace {
using ObservedObject = std::shared_ptr<const void>;
} // namespace

void prepareSafeObserveForKeyPath(KVNSafeObserver *observer, QObject *lifetimeReceiver, const QString &keyPath,
                                  std::shared_ptr<const void> object, QVariantMap change, void *context)
{
    if (!observer || !lifetimeReceiver)
        throw std::invalid_argument("prepareSafeObserveForKeyPath: observer and receiver are required");
    if (!object)
        throw std::invalid_argument("prepareSafeObserveForKeyPath: the observed object is required");

    QVariantMap observation;
    observation.insert(QStringLiteral("keyPath"), keyPath);
    observation.insert(QStringLiteral("object"), QVariant::fromValue(ObservedObject(std::move(object))));
    observation.insert(QStringLiteral("change"), std::move(change));
    if (context)
        observation.insert(QStringLiteral("context"), QVariant::fromValue(context));

    KVNMainThread::post(lifetimeReceiver, [observer, observation = std::move(observation)] {
        dispatchObservationOnMainThread(observer, observation);
    });
}

void dispatchObservationOnMainThread(KVNSafeObserver *observer, const QVariantMap &observation)
{
    if (!KVNMainThread::isMainThread()) {
        Q_ASSERT_X(false, "dispatchObservationOnMainThread", "Must run on the main thread!");
        qCritical("dispatchObservationOnMainThread: Must run on the main thread! Dropped a change of \"%s\"",
                  qUtf8Printable(observation.value(QStringLiteral("keyPath")).toString()));
        return;
    }
    const ObservedObject object = observation.value(QStringLiteral("object")).value<ObservedObject>();
    const QVariant keyPath = observation.value(QStringLiteral("keyPath"));
    if (!observer || !object || keyPath.typeId() != QMetaType::QString) {
        qCritical("dispatchObservationOnMainThread: dropped an incomplete observation record");
        return;
    }
    // A missing "context" means the change came without one.
    void *context = observation.value(QStringLiteral("context")).value<void *>();
    observer->saferObserveValueForKeyPath(keyPath.toString(), object.get(),
                                          observation.value(QStringLiteral("change")).toMap(), context);
}
