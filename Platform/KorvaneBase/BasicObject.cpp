#include "KorvaneBase/BasicObject.h"

namespace Korvane {

BasicObject::BasicObject(QObject* parent) : QObject(parent) {}

BasicObject::~BasicObject() = default;

} // namespace Korvane
