#include "KorvaneBase/Record.h"

#include "KorvaneBase/KorvaneBase.h"

namespace Korvane {

Record::Record(const QString& function, int line, const QString& file, const QObject* object,
               int level)
    : mFunction(function), mLine(line), mFile(file), mObject(object), mLevel(level)
{}

Record::~Record()
{
    flush();
}

Record& Record::operator<<(const QString& text)
{
    mText += text;
    return *this;
}

Record& Record::operator<<(const char* text)
{
    mText += QString::fromUtf8(text);
    return *this;
}

Record& Record::operator<<(int value)
{
    mText += QString::number(value);
    return *this;
}

Record& Record::operator<<(unsigned int value)
{
    mText += QString::number(value);
    return *this;
}

Record& Record::operator<<(long value)
{
    mText += QString::number(value);
    return *this;
}

Record& Record::operator<<(unsigned long value)
{
    mText += QString::number(value);
    return *this;
}

Record& Record::operator<<(long long value)
{
    mText += QString::number(value);
    return *this;
}

Record& Record::operator<<(unsigned long long value)
{
    mText += QString::number(value);
    return *this;
}

Record& Record::operator<<(double value)
{
    mText += QString::number(value);
    return *this;
}

void Record::flush()
{
    if (mFlushed) {
        return;
    }
    mFlushed = true;
    LogEntry entry;
    entry.time = QDateTime::currentDateTime();
    entry.level = mLevel;
    entry.function = mFunction;
    entry.line = mLine;
    entry.file = mFile;
    entry.object = mObject;
    entry.text = mText;
    KorvaneBaseEntry()->logger().write(entry);
}

} // namespace Korvane
