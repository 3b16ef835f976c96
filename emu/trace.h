// The live trace: a steering connection that asked {"cmd": "trace"} gets,
// after its answer line, one record per datagram the device receives or
// sends, copied raw (the device formats nothing for it); the client
// decodes and prints them. A subscriber that does not keep up loses
// records; the next record that fits follows a record that counts them.
//
//    0           4      5     6         7         8                16
//   +-----------+------+-----+---------+---------+----------------+--------+-----------
//   | size be32 | kind | dir | service | peerLen | time be64      | peer   | datagram
//   |           |      |     |         |         | wall clock, us |        |
//   +-----------+------+-----+---------+---------+----------------+--------+-----------
//   size: the bytes after the size field (12 + peerLen + the datagram)
//   kind 0: a datagram; dir 0 to the device, 1 from it; service 0
//   forwarding, 1 event, 2 control; peer the connection ("@12", "control")
//   kind 1: records dropped; the datagram is their count, be64
#ifndef L2VFIB_EMU_TRACE_H
#define L2VFIB_EMU_TRACE_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace l2vfib::emu {

struct TraceRecord {
    bool dropped = false;      // kind 1: count says how many
    uint64_t count = 0;
    bool fromDevice = false;
    int service = 0;
    int64_t timeUs = 0;
    std::string peer;
    std::vector<uint8_t> datagram;
};

// Appends one datagram's record to out.
void AppendTraceRecord(std::string &out, bool fromDevice, int service, std::string_view peer,
                       int64_t timeUs, std::span<const uint8_t> datagram);
// Appends the record that counts dropped records.
void AppendDroppedRecord(std::string &out, uint64_t count, int64_t timeUs);
// The bytes one datagram's record takes.
size_t TraceRecordSize(std::string_view peer, size_t datagram);
constexpr size_t kDroppedRecordSize = 4 + 12 + 8;

// Takes the first whole record off the front of in; nothing while in holds
// less than one. *bad is set when the bytes cannot be a record (the stream
// is then unusable).
std::optional<TraceRecord> TakeTraceRecord(std::string &in, bool *bad);

struct TraceOptions {
    bool json = false;
    std::string table;  // "" for all; a table name ("pw") or a message kind ("reply")
    std::string key;    // "" for all; as the table's key column prints it ("7/1")
    size_t buffer = 0;  // the device's bound for this subscriber's output (0: its default)
};

// Follows the running device until SIGINT or SIGTERM, or until it stops,
// printing one line per message to stdout. Returns the exit status.
int RunTrace(const TraceOptions &options);

struct ReplayOptions {
    std::string capture;
    double speed = 1;  // 0: as fast as possible
};

// Sends the capture's datagrams to the device to the running device, then
// compares its tables with those of a fresh device of its own that got the
// same capture. Returns 0 when they agree, 1 when they differ, 2 on a
// fault.
int RunReplay(const ReplayOptions &options);

}  // namespace l2vfib::emu

#endif
