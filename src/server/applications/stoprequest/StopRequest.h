#pragma once

/// What the module stop-request.so exports: the daemon's only use of libcurl. libcurl brings some forty
/// libraries, which the daemon would else carry from its start to its end, and copy the map of at every fork,
/// for a request that is sent when the terminal restarts.
extern "C" {

/// Sends an HTTP GET and waits for the answer, whose status and body are not looked at.
///
/// \param url             8-bit text
/// \param timeoutSeconds  for the whole exchange
/// \return libcurl's code, 0 for an answer; -1 if libcurl gives no handle
int KxSendStopRequest(const char* url, long timeoutSeconds);
}

/// The name and the type of that function, for whoever loads the module.
constexpr auto kSendStopRequestName = "KxSendStopRequest";
using SendStopRequest = decltype(&KxSendStopRequest);
