#include "KorvaneBase/KorvaneBase.h"

namespace Korvane {
namespace {

class ProcessBase final : public KorvaneBase
{
public:
    ProcessBase() : mLogger(&mSettings) {}
    Logger& logger() override { return mLogger; }
    Settings& settings() override { return mSettings; }

private:
    // Declared first: the logger reads its switches from the settings.
    Settings mSettings;
    Logger mLogger;
};

} // namespace

KorvaneBase* KorvaneBaseEntry()
{
    static ProcessBase instance;
    return &instance;
}

} // namespace Korvane
