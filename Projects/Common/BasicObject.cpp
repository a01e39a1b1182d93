#include "Common/BasicObject.h"

namespace Korvane {

BasicObject::BasicObject(QObject* parent) : QObject(parent) {}

BasicObject::~BasicObject() = default;

} // namespace Korvane
