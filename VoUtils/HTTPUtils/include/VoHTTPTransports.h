// The table of transports: which there are, and what they are called. CVoHTTPMessage::Connect chooses from it; front ends list
// it.
#pragma once

#include <VoHTTPMessage.h>

#include <span>

struct CVoHTTPTransportRow
{
    UINT32 kind;      // the value of the setting HTTPEngine
    const char* name; // as front ends call it: "wininet", "winhttp", "curl", "winhttp-loopback"
    // A new message of this kind that is not connected. Throws std::bad_alloc or CVoHResultException.
    std::shared_ptr<CVoHTTPMessage> (*make)();
};

// All transports, in the order of their kinds.
[[nodiscard]] std::span<const CVoHTTPTransportRow> VoHTTPTransports() noexcept;
// The row of a kind; null when there is none.
[[nodiscard]] const CVoHTTPTransportRow* VoFindHTTPTransport(UINT32 kind) noexcept;
