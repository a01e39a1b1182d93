#pragma once

#include <QObject>

class QSocketNotifier;

namespace Korvane {

// Turns SIGINT into a Qt signal on the event loop. The C handler only writes
// one byte to a socket pair (the one thing a handler may safely do); the
// notifier then emits interrupted() on the owning thread. The handler is
// installed for one delivery: a second Ctrl-C kills the program the default
// way while it is still cleaning up after the first. One watcher per process.
class InterruptWatcher : public QObject
{
    Q_OBJECT
public:
    InterruptWatcher();
    ~InterruptWatcher() override;
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

    // False when the socket pair or the handler could not be set up.
    bool isActive() const { return mNotifier != nullptr; }

Q_SIGNALS:
    void interrupted();

private:
    void onReadable();

    QSocketNotifier* mNotifier = nullptr;
};

} // namespace Korvane
