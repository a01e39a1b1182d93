#pragma once

#include <QList>
#include <QObject>

#include <csignal>

class QSocketNotifier;

namespace Korvane {

// Turns signals into a Qt signal on the event loop. The C handler only writes
// the signal's number to a socket pair (the one thing a handler may safely
// do); the notifier then emits interrupted() on the owning thread.
//
// Delivery::Once installs each handler for one delivery: a second Ctrl-C
// kills the program the default way while it is still cleaning up after the
// first. Delivery::Every keeps the handlers, for a program that must clean up
// however often it is told to end. The default actions return when the
// watcher goes. One watcher per process.
class InterruptWatcher : public QObject
{
    Q_OBJECT
public:
    enum class Delivery
    {
        Once,
        Every
    };

    explicit InterruptWatcher(const QList<int>& signalNumbers = {SIGINT},
                              Delivery delivery = Delivery::Once);
    ~InterruptWatcher() override;
    InterruptWatcher(const InterruptWatcher&) = delete;
    InterruptWatcher& operator=(const InterruptWatcher&) = delete;

    // False when the socket pair or a handler could not be set up; no
    // handler is installed then.
    bool isActive() const { return mNotifier != nullptr; }

Q_SIGNALS:
    void interrupted(int signalNumber);

private:
    void onReadable();

    QList<int> mSignals;
    QSocketNotifier* mNotifier = nullptr;
};

} // namespace Korvane
