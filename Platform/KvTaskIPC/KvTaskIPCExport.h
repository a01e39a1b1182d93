#pragma once

#include <QtCore/qglobal.h>

#if defined(KVTASKIPC_LIBRARY)
#define KVTASKIPC_EXPORT Q_DECL_EXPORT
#else
#define KVTASKIPC_EXPORT Q_DECL_IMPORT
#endif
