#include "InterruptWatcher.h"

#include <QSocketNotifier>

#include <csignal>
#include <sys/socket.h>
#include <unistd.h>

namespace Korvane {

namespace {

int gSockets[2] = {-1, -1};

void onSigint(int)
{
    const char byte = 1;
    // Nothing to do on failure inside a signal handler; the result is read
    // only to keep the compiler quiet about an ignored write.
    [[maybe_unused]] const ssize_t written = ::write(gSockets[0], &byte, 1);
}

} // namespace

InterruptWatcher::InterruptWatcher()
{
    if (::socketpair(AF_UNIX, SOCK_STREAM, 0, gSockets) != 0) {
        return;
    }
    struct sigaction action = {};
    action.sa_handler = onSigint;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    if (::sigaction(SIGINT, &action, nullptr) != 0) {
        ::close(gSockets[0]);
        ::close(gSockets[1]);
        gSockets[0] = gSockets[1] = -1;
        return;
    }
    mNotifier = new QSocketNotifier(gSockets[1], QSocketNotifier::Read, this);
    connect(mNotifier, &QSocketNotifier::activated, this, &InterruptWatcher::onReadable);
}

InterruptWatcher::~InterruptWatcher()
{
    if (!mNotifier) {
        return;
    }
    std::signal(SIGINT, SIG_DFL);
    delete mNotifier;
    ::close(gSockets[0]);
    ::close(gSockets[1]);
    gSockets[0] = gSockets[1] = -1;
}

void InterruptWatcher::onReadable()
{
    char byte = 0;
    if (::read(gSockets[1], &byte, 1) == 1) {
        Q_EMIT interrupted();
    }
}

} // namespace Korvane
