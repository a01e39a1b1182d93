#include "KorvaneDec/KorvaneDecLog.h"

Q_LOGGING_CATEGORY(lcKorvaneDec, "korvane.dec")
