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

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "table.h"

namespace l2vfib::emu {

struct StartOptions {
    bool foreground = false;
    std::string capture;  // a pcap file of every datagram, or empty
    uint64_t captureMax = uint64_t{1} << 30;  // a capture file's bound (Capture::Open)
    uint64_t logMax = 64 << 20;               // emu.log's bound, then emu.log.1
};

// Runs the device until it is stopped (the stop command, SIGTERM, SIGINT).
// The device directory is checked and opened once, and every file of the
// device is reached through that descriptor; the capture and every socket
// are opened before it runs, so a start that cannot have one fails (1)
// and leaves no device. In the background, returns in the parent once the
// device's process has written its pid file. $L2VFIB_EMU_LOG_MAX, a size
// (ParseSize), sets options.logMax; one that is not gives 2. Returns the
// process's exit status.
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
// was running (the stale files of a device that was killed are removed
// then).
int Stop();

}  // namespace l2vfib::emu

#endif
