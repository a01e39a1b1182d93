#include "common/InterruptWatcher.h"

#include <QSocketNotifier>

#include <sys/socket.h>
#include <unistd.h>

namespace Korvane {

namespace {

int gSockets[2] = {-1, -1};

void onSignal(int signalNumber)
{
    const char byte = char(signalNumber);
    // Nothing to do on failure inside a signal handler; the result is read
    // only to keep the compiler quiet about an ignored write.
    [[maybe_unused]] const ssize_t written = ::write(gSockets[0], &byte, 1);
}

void restoreDefaults(const QList<int>& signalNumbers)
{
    for (const int signalNumber : signalNumbers) {
        std::signal(signalNumber, SIG_DFL);
    }
}

} // namespace

InterruptWatcher::InterruptWatcher(const QList<int>& signalNumbers, Delivery delivery)
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, gSockets) != 0) {
        return;
    }
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART | (delivery == Delivery::Once ? SA_RESETHAND : 0);
    for (const int signalNumber : signalNumbers) {
        if (::sigaction(signalNumber, &action, nullptr) != 0) {
            restoreDefaults(mSignals);
            mSignals.clear();
            ::close(gSockets[0]);
            ::close(gSockets[1]);
            gSockets[0] = gSockets[1] = -1;
            return;
        }
        mSignals.append(signalNumber);
    }
    mNotifier = new QSocketNotifier(gSockets[1], QSocketNotifier::Read, this);
    connect(mNotifier, &QSocketNotifier::activated, this, &InterruptWatcher::onReadable);
}

InterruptWatcher::~InterruptWatcher()
{
    if (!mNotifier) {
        return;
    }
    restoreDefaults(mSignals);
    delete mNotifier;
    ::close(gSockets[0]);
    ::close(gSockets[1]);
    gSockets[0] = gSockets[1] = -1;
}

void InterruptWatcher::onReadable()
{
    char byte = 0;
    if (::read(gSockets[1], &byte, 1) == 1) {
        Q_EMIT interrupted(int(byte));
    }
}

} // namespace Korvane
