#include "KorvaneBase/FileIdentity.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#ifdef Q_OS_WIN
#include <windows.h>
#else
#include <sys/stat.h>
#endif

namespace Korvane {

namespace {

struct Identity
{
    quint64 volume = 0;
    quint64 index = 0;
    bool exists = false;

    bool operator==(const Identity& other) const
    {
        return exists && other.exists && volume == other.volume && index == other.index;
    }
};

#ifdef Q_OS_WIN
constexpr Qt::CaseSensitivity kNameCase = Qt::CaseInsensitive;

// Opening with no access rights is enough to ask for the identity; the backup
// flag lets folders be opened too. Links and junctions are followed.
Identity identityOf(const QString& path)
{
    const std::wstring native = QDir::toNativeSeparators(path).toStdWString();
    const HANDLE handle =
        CreateFileW(native.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                    nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
    if (handle == INVALID_HANDLE_VALUE) {
        return {};
    }
    BY_HANDLE_FILE_INFORMATION info{};
    const bool known = GetFileInformationByHandle(handle, &info) != 0;
    CloseHandle(handle);
    if (!known) {
        return {};
    }
    return {info.dwVolumeSerialNumber,
            (quint64(info.nFileIndexHigh) << 32) | quint64(info.nFileIndexLow), true};
}
#else
#ifdef Q_OS_MACOS
constexpr Qt::CaseSensitivity kNameCase = Qt::CaseInsensitive;
#else
constexpr Qt::CaseSensitivity kNameCase = Qt::CaseSensitive;
#endif

// stat follows symbolic links, so a link and its target share the identity.
Identity identityOf(const QString& path)
{
    struct stat status
    {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0) {
        return {};
    }
    return {quint64(status.st_dev), quint64(status.st_ino), true};
}
#endif

} // namespace

bool isSameFile(const QString& input, const QString& output)
{
    if (input.isEmpty() || output.isEmpty()) {
        return false;
    }
    const Identity in = identityOf(input);
    if (!in.exists) {
        return false;
    }
    const Identity out = identityOf(output);
    if (out.exists) {
        return in == out;
    }
    const QFileInfo inputFile(QFileInfo(input).canonicalFilePath());
    const QFileInfo outputFile(output);
    return outputFile.fileName().compare(inputFile.fileName(), kNameCase) == 0 &&
           identityOf(outputFile.absolutePath()) == identityOf(inputFile.absolutePath());
}

QString inputThatIs(const QStringList& inputs, const QString& output)
{
    for (const QString& input : inputs) {
        if (isSameFile(input, output)) {
            return input;
        }
    }
    return {};
}

} // namespace Korvane
