#pragma once

#include <QtCore/qglobal.h>

#if defined(KORVANENLEDITOR_LIBRARY)
#define KORVANENLEDITOR_EXPORT Q_DECL_EXPORT
#else
#define KORVANENLEDITOR_EXPORT Q_DECL_IMPORT
#endif
