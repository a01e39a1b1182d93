#pragma once

#include <QtCore/qglobal.h>

#if defined(KORVANETIMELINE_LIBRARY)
#define KORVANETIMELINE_EXPORT Q_DECL_EXPORT
#else
#define KORVANETIMELINE_EXPORT Q_DECL_IMPORT
#endif
