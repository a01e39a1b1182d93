#pragma once

#include <QtCore/qglobal.h>

#if defined(KORVANETASK_LIBRARY)
#define KORVANETASK_EXPORT Q_DECL_EXPORT
#else
#define KORVANETASK_EXPORT Q_DECL_IMPORT
#endif
