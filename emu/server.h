// The emulated device's process: its sockets in the device directory, the
// poll loop that feeds the device, the steering socket, and the client
// side of that socket that the other subcommands use.
//
//   <device directory>/node-8000.port-2670    forwarding service (packets)
//   <device directory>/node-0001.port-12566   event service (packets)
//   <device directory>/control                control calls (datagrams)
//   <device directory>/emu.sock               steering (stream, JSON lines)
//   <device directory>/emu.pid, emu.log       while it runs in the background
#ifndef L2VFIB_EMU_SERVER_H
#define L2VFIB_EMU_SERVER_H

#include <cstdio>
#include <optional>
#include <string>

#include "table.h"

namespace l2vfib::emu {

struct StartOptions {
    bool foreground = false;
    std::string capture;  // a pcap file of every datagram, or empty
};

// Runs the device until it is stopped (the stop command, SIGTERM, SIGINT).
// In the background, returns in the parent once the device answers on its
// steering socket. Returns the process's exit status.
int Start(const StartOptions &options);

// The device directory, or an empty string (with a message on stderr) when
// it cannot be named.
std::string DeviceDirectory();

// Sends one steering request to the running device and returns its
// response; nothing, with *error set, when no device answers.
std::optional<Json> Steer(const Json &request, std::string *error);

// Sends one steering request and keeps the connection: returns its
// descriptor (the caller closes it), with the answer line in *response and
// whatever followed it in *rest; -1, with *error set, when no device
// answers.
int SteerConnection(const Json &request, std::string *error, Json *response, std::string *rest);

// The same for a show that may stream: a streamed table's rows are copied
// to out as they come (JSON rows as one array when the request asks for
// json); otherwise the response is returned as by Steer.
std::optional<Json> SteerStreamed(const Json &request, std::string *error, std::FILE *out);

// Stops the running device and waits for it to go. Returns 0 also when none
// was running (its stale files are removed then).
int Stop();

}  // namespace l2vfib::emu

#endif
