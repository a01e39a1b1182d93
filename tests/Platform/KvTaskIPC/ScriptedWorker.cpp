// A stand-in for the worker program that plays one scripted behaviour, so the
// out-of-process operators can be tested without a real converter.
//
//   scripted-worker <command> --<option> FILE ...
//
// KORVANE_SCRIPTED_WORKER names the behaviour (see play()).
// KORVANE_SCRIPTED_WORKER_DIR is a folder where every run leaves
// run-<n>.json: {"arguments": [...], "files": {"--option": "content", ...}}
// with the contents of the job files as the worker found them, and, when it
// received "stop", the file stopped-<n>.
#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>
#include <QThread>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#ifdef Q_OS_UNIX
#include <sys/resource.h>
#endif

namespace {

void say(const char* line)
{
    std::fputs(line, stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
    QThread::msleep(20);
}

void crash()
{
#ifdef Q_OS_UNIX
    // No core file for an intended crash.
    const rlimit none{0, 0};
    setrlimit(RLIMIT_CORE, &none);
#endif
    std::abort();
}

int succeed(const QString& command)
{
    std::fprintf(stderr, "scripted worker: working on %s\n", qPrintable(command));
    std::fflush(stderr);
    say("{\"state\":1}");
    say("this line is not a message");
    say("{\"progress\":0.25}");
    // A message that reaches the reader in two pieces.
    std::fputs("{\"progr", stdout);
    std::fflush(stdout);
    QThread::msleep(100);
    say("ess\":0.5}");
    say("{\"progress\":1.0}");
    say("{\"state\":5}");
    return 0;
}

// Waits for "stop" on standard input; reports 4 when it comes.
int waitForStop(const QDir& records, int run)
{
    say("{\"state\":1}");
    std::string line;
    while (std::getline(std::cin, line)) {
        if (line == "stop") {
            QFile(records.filePath(QStringLiteral("stopped-%1").arg(run)))
                .open(QIODevice::WriteOnly);
            say("{\"state\":4}");
            return 0;
        }
    }
    return 3;
}

int play(const QString& behaviour, const QString& command, const QDir& records, int run)
{
    if (behaviour == QLatin1String("success")) {
        return succeed(command);
    }
    if (behaviour == QLatin1String("failure")) {
        say("{\"state\":1}");
        say("{\"progress\":0.1}");
        say("{\"state\":6,\"error\":\"scripted failure\"}");
        return 1;
    }
    if (behaviour == QLatin1String("crash")) {
        say("{\"state\":1}");
        say("{\"progress\":0.3}");
        crash();
    }
    if (behaviour == QLatin1String("crash-once")) {
        QFile marker(records.filePath(QStringLiteral("crashed")));
        if (!marker.exists()) {
            marker.open(QIODevice::WriteOnly);
            marker.close();
            say("{\"state\":1}");
            say("{\"progress\":0.3}");
            crash();
        }
        return succeed(command);
    }
    if (behaviour == QLatin1String("quit")) {
        // Ends normally but never says how the job went.
        say("{\"state\":1}");
        return 0;
    }
    if (behaviour == QLatin1String("hang")) {
        return waitForStop(records, run);
    }
    if (behaviour == QLatin1String("deaf")) {
        // Ignores "stop" until it is killed.
        say("{\"state\":1}");
        QThread::sleep(60);
        return 0;
    }
    if (behaviour == QLatin1String("linger")) {
        // Reports success and then never exits.
        succeed(command);
        QThread::sleep(60);
        return 0;
    }
    std::fprintf(stderr, "scripted worker: unknown behaviour '%s'\n", qPrintable(behaviour));
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    QStringList arguments;
    for (int i = 1; i < argc; ++i) {
        arguments << QString::fromLocal8Bit(argv[i]);
    }
    const QDir records(qEnvironmentVariable("KORVANE_SCRIPTED_WORKER_DIR"));
    int run = 1;
    while (records.exists(QStringLiteral("run-%1.json").arg(run))) {
        ++run;
    }
    QJsonObject files;
    for (int i = 1; i + 1 < arguments.size(); i += 2) {
        QFile job(arguments.at(i + 1));
        files.insert(arguments.at(i), job.open(QIODevice::ReadOnly)
                                          ? QJsonValue(QString::fromUtf8(job.readAll()))
                                          : QJsonValue());
    }
    QFile record(records.filePath(QStringLiteral("run-%1.json").arg(run)));
    if (record.open(QIODevice::WriteOnly)) {
        const QJsonObject object{{"arguments", QJsonArray::fromStringList(arguments)},
                                 {"files", files}};
        record.write(QJsonDocument(object).toJson());
        record.close();
    }
    return play(qEnvironmentVariable("KORVANE_SCRIPTED_WORKER"), arguments.value(0), records, run);
}
