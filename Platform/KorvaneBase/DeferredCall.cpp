#include "KorvaneBase/DeferredCall.h"

#include <QMetaObject>
#include <QObject>

#include <utility>

namespace Korvane {

DeferredCall::DeferredCall(QObject* receiver, std::function<void()> call)
    : mReceiver(receiver), mCall(std::move(call))
{}

void DeferredCall::post()
{
    if (mPending) {
        return;
    }
    mPending = true;
    // The queued function holds its own copy of the call: the call may
    // destroy this object.
    QMetaObject::invokeMethod(
        mReceiver,
        [this, call = mCall] {
            mPending = false;
            call();
        },
        Qt::QueuedConnection);
}

} // namespace Korvane
