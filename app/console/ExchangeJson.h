// The key "exchange" of send and get: what happened while a request was sent.
#pragma once

#include "Text.h"

#include <VoExchangeRecord.h>

[[nodiscard]] CJson ExchangeAsJson(const CVoExchangeRecord& record);
