#pragma once

#include <QtCore/qglobal.h>

#if defined(KORVANESUPPORT_LIBRARY)
#define KORVANESUPPORT_EXPORT Q_DECL_EXPORT
#else
#define KORVANESUPPORT_EXPORT Q_DECL_IMPORT
#endif
