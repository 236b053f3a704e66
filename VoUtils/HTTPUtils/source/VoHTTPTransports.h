// Which transport serves which kind: the only place that knows them all, so that none knows another.
#pragma once

#include <VoHTTPMessage.h>

// A new, unconnected message of the given transport kind; null for a kind that there is none for. Throws std::bad_alloc.
[[nodiscard]] std::shared_ptr<CVoHTTPMessage> VoMakeHTTPTransport(UINT32 kind);
