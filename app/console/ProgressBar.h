// The progress bar of a long transfer.
#pragma once

#include "Streams.h"

#include <VoHTTPMessage.h>

#include <memory>
#include <thread>

// Shows the progress of one request on a terminal, from the first second until the object is destroyed. Does nothing if the
// error stream is not a terminal, or without a request.
class CProgressBar
{
public:
    CProgressBar(IByteSink& err, std::shared_ptr<CVoHTTPMessage::CHTTPRequestData> request, bool quiet);

private:
    static void Show(const std::stop_token& stop, IByteSink& err, const CVoHTTPMessage::CHTTPRequestData& request);

    std::jthread m_thread; // the destructor stops it and waits
};
