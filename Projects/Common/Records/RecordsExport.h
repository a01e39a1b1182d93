#pragma once

#include <QtCore/qglobal.h>

#if defined(KORVANERECORDS_LIBRARY)
#define KORVANERECORDS_EXPORT Q_DECL_EXPORT
#else
#define KORVANERECORDS_EXPORT Q_DECL_IMPORT
#endif
