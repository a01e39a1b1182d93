#include "KorvaneDec/KorvaneDecLog.h"

// Quiet unless asked for, e.g. QT_LOGGING_RULES="korvane.dec.debug=true".
Q_LOGGING_CATEGORY(lcKorvaneDec, "korvane.dec", QtInfoMsg)
