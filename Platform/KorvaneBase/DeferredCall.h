#pragma once

#include "KorvaneBase/KorvaneBaseExport.h"

#include <functional>

class QObject;

namespace Korvane {

// A call made from the event loop of `receiver`'s thread, once for any number
// of post() before it runs. A child process's run ends inside a signal of the
// QProcess that its operator owns; what ends the run (releasing the process,
// a final state whose receiver may drop the operator, the operator's last
// reference to itself) is posted here so that it happens after that signal
// has returned. It belongs to `receiver` (a member of it): nothing is called
// once `receiver` is gone, and the call may destroy `receiver`.
class KORVANEBASE_EXPORT DeferredCall
{
public:
    DeferredCall(QObject* receiver, std::function<void()> call);

    void post();

private:
    QObject* mReceiver;
    std::function<void()> mCall;
    bool mPending = false;
};

} // namespace Korvane
