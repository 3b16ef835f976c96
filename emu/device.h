// The emulated device: the forwarding service (node 0x8000, port 2670), the
// event service (the local node, port 12566) and the control-call endpoint,
// as one state machine over datagrams. It owns no socket: the server hands
// it what arrived and sends what it returns, so every rule here can be
// driven byte for byte.
//
// What it receives costs little until it is shown: a pseudowire batch is
// checked and filed without the full decoder, the entry tables keep message
// bytes, and the log keeps raw datagrams in a ring that is decoded when
// someone reads it. Only faults and steering are logged as text at once.
#ifndef L2VFIB_EMU_DEVICE_H
#define L2VFIB_EMU_DEVICE_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "l2vfib_decode.h"
#include "table.h"

namespace l2vfib::emu {

using Bytes = std::vector<uint8_t>;

// A peer is one connection to a service, named by the server ("@12").
using Peer = std::string;

struct Outgoing {
    Peer to;
    Bytes bytes;
};

// The device's settings that the steering commands change.
struct Settings {
    // Capability answer: words of all-ones fill per item.
    uint8_t fill13 = 2, fill21 = 2, fill22 = 4, fill33 = 2, fill39 = 3;
    std::map<uint32_t, uint32_t> answers;     // catalogue code -> item-37 result
    std::map<uint32_t, bool> nodes{{0x0001, true}, {0x0002, true}, {0x0003, false}};
    std::map<uint32_t, uint32_t> tunnelModes{{100, 24}, {261, 28}};
    uint32_t localNode = 0x0001;
    uint32_t nextIdentifier = 1;  // the next item-184 answer
};

struct Counters {
    uint64_t datagrams = 0;  // forwarding and event service, received
    uint64_t messages = 0;   // messages in them
    uint64_t errors = 0;     // faults found in them
    uint64_t replies = 0;    // item-37 and item-184 replies sent
    uint64_t acAnswers = 0;  // AC data answers sent
    uint64_t notices = 0;
    uint64_t events = 0;
    uint64_t controls = 0;   // control requests served
    uint64_t dropped = 0;    // datagrams dropped by the drop fault
    uint64_t busySpells = 0; // times the busy fault began
    uint64_t restarts = 0;   // service restarts
    uint64_t refused = 0;    // steering peers of another user, turned away
    uint64_t peersRefused = 0;  // service peers neither the device's user nor root
    uint64_t rowsRefused = 0;  // rows and members past what a table keeps
};

// The faults a developer injects (`l2vfib-emu fault ...`). The server
// reads them: while busy it does not read the forwarding service, and with
// slowUs it reads one datagram at most every slowUs microseconds.
struct Faults {
    bool busy = false;
    int64_t busyUntilMs = 0;  // monotonic; 0 while busy without a limit
    uint32_t slowUs = 0;
    uint64_t dropLeft = 0;    // forwarding datagrams still to drop
};

// One entry of the log ring: a text line, or a datagram kept raw and
// decoded only when the log is read.
struct LogRecord {
    uint64_t seq = 0;
    int64_t timeMs = 0;  // wall clock
    enum class What : uint8_t { kText, kToService, kToEvent } what = What::kText;
    Peer peer;
    std::string text;
    Bytes bytes;
};

class Device {
  public:
    // log receives every line the device logs (the server writes them out).
    explicit Device(std::function<void(const std::string &)> log = {});

    // A datagram to the forwarding service from peer (fresh: the first on
    // its connection): applies every sound message to the tables and
    // returns the answers to send back.
    std::vector<Outgoing> Forwarding(const Peer &from, bool fresh, std::span<const uint8_t> datagram);
    // A datagram to the event service: channels and registrations.
    void Event(const Peer &from, std::span<const uint8_t> datagram);
    // A control request; returns the answer datagram, or nothing (one-way
    // calls and requests that do not decode).
    std::optional<Bytes> Control(std::span<const uint8_t> request);

    // Steering: one JSON request, one JSON response. Notices and events to
    // send are appended to toClients (forwarding socket) and toChannels
    // (event socket).
    Json Steer(const Json &request, std::vector<Outgoing> *toClients,
               std::vector<Outgoing> *toChannels);

    // A steering peer of another user, turned away.
    void CountRefused(uint32_t uid, int32_t pid);
    // A service peer neither the device's user nor root, turned away; line
    // is logged unless empty.
    void CountPeerRefused(const std::string &line);
    // A client whose socket is gone: no more notices to it.
    void DropClient(const Peer &peer);

    const Settings &Setup() const { return settings_; }
    const Counters &Count() const { return counters_; }
    const Faults &Fault() const { return faults_; }
    bool StopAsked() const { return stopAsked_; }
    // Set by `fault restart`; the server restarts the services and calls
    // Restarted, which empties what the services held.
    bool RestartAsked() const { return restartAsked_; }
    void Restarted();
    // Ends a busy spell whose time is up (nowMs monotonic).
    void Tick(int64_t nowMs);
    // Every message logged as a decoded line too (slow; off by default).
    bool LogMessages() const { return logMessages_; }

    // A streamed show of a message table: renders up to limit rows from
    // *from on into out (text aligned per block, or one JSON object a
    // line) and moves *from on; false once the table is done. Tables that
    // keep rendered rows are not streamed (IsStreamed false).
    bool IsStreamed(const std::string &name) const;
    bool StreamRows(const std::string &name, MessageTable::Key *from, size_t limit, bool json,
                    std::string *out) const;

    // The log ring, oldest first, rendered: one line per text record and
    // per message of a datagram.
    std::vector<std::string> LogLines() const;

  private:
    struct TableRef {
        Table *rows = nullptr;
        MessageTable *messages = nullptr;
        const std::string &Name() const { return rows ? rows->Name() : messages->Name(); }
        const std::string &About() const { return rows ? rows->About() : messages->About(); }
        size_t Size() const { return rows ? rows->Size() : messages->Size(); }
        void Clear() const { rows ? rows->Clear() : messages->Clear(); }
    };
    const TableRef *FindTable(const std::string &name) const;

    void Log(const std::string &line);
    // Files a row in an entry table, or counts it refused when it is full.
    void Keep(MessageTable &table, const MessageTable::Key &key, std::span<const uint8_t> message);
    void Refuse(const std::string &why);
    void Keep(LogRecord::What what, const Peer &peer, std::span<const uint8_t> datagram);
    LogRecord &NextRecord();
    // Files a datagram of pseudowire adds and deletes without the full
    // decoder; false (nothing changed) when any byte needs the decoder.
    bool FastPw(std::span<const uint8_t> datagram);
    Json SteerFault(const Json &request);
    Json ShowRow(const std::string &name, const std::string &key);
    Json CountTables(const std::string &name);
    // Counts a decoded message; a faulty one is counted as an error and
    // logged with what (who sent it), and false is returned.
    bool Accept(const decode::Message &message, const std::string &what);
    void Apply(const decode::Message &message, std::span<const uint8_t> datagram);
    void ApplyEntry(MessageTable &table, const decode::Message &message,
                    std::span<const uint8_t> datagram, const std::vector<uint64_t> &key,
                    const std::string &keyText);
    void ApplyMembers(Table &table, const decode::Message &message, uint16_t memberItem);
    std::optional<Outgoing> Answer(const Peer &from, const decode::Message &message, bool fresh);
    Bytes AcDataAnswer() const;
    Json ShowTable(const std::string &name);
    Json SendEvent(const Json &request, std::vector<Outgoing> *toChannels);
    Json SetCaps(const Json &request);
    Table CountersTable() const;
    Table SettingsTable(const std::string &name) const;

    std::function<void(const std::string &)> log_;
    Settings settings_;
    Counters counters_;
    Faults faults_;
    bool stopAsked_ = false;
    bool restartAsked_ = false;
    bool logMessages_ = false;
    std::string refusedWhy_;

    MessageTable pw_;
    MessageTable minm_;
    MessageTable ac_;
    Table acFlag_{"ac-flag", "the attachment-circuit flag state"};
    MessageTable tunnel_;
    Table tunnelIf_{"tunnel-if", "tunnel interface deletions, in arrival order"};
    Table ebg_{"ebg", "EBG member sets: key EBG identifier"};
    Table mplsEbg_{"mpls-ebg", "MPLS EBG member sets: key words of TLV 202"};
    Table ebgDf_{"ebg-df", "EBG designated forwarders: the four words of TLV 153"};
    Table mac_{"mac", "MAC withdraws and resets, in arrival order"};
    Table gr_{"gr", "graceful-restart events, in arrival order"};
    Table cfg_{"cfg", "catalogue objects: key object type:key, with their decoded items"};
    Table channel_{"channel", "event channels: key the client's socket, channel word"};
    Table reg_{"reg", "event registrations: client socket/number, selector, mask, parameter, extra"};
    Table control_{"control", "control calls (start, stop, VLAN range check, MAC reset, ...)"};
    std::vector<TableRef> order_;

    // The log ring: the last kLogRecords records, next_ the oldest.
    std::vector<LogRecord> ring_;
    size_t ringNext_ = 0;
    uint64_t logSeq_ = 0;

    // The AC data entries (16 bytes each), by attachment-circuit key.
    std::map<std::vector<uint64_t>, std::array<uint8_t, 16>> acData_;
    // The clients that notices go to (the daemons' service sockets).
    std::vector<Peer> clients_;
    // Event peers get small numbers for their rows' keys.
    std::map<Peer, uint64_t> channelIds_;
    uint64_t nextChannelId_ = 1;
    uint64_t nextReg_ = 1;
    uint32_t acFlagMessages_ = 0;
};

// A peer as printed.
inline const std::string &PeerText(const Peer &peer) { return peer; }

// One message as the log and the trace show it, after the time: the peer,
// '>' for what the device received and '<' for what it sent, the decoded
// line ("@12 > pw add id 7 subId 1 byte7 8 | 13 ...").
std::string MessageLine(const Peer &peer, bool fromDevice, const decode::Message &message);
// The same for a line that is not a message (a fault, a control call's head).
std::string PeerLine(const Peer &peer, bool fromDevice, const std::string &text);
// The wall clock (milliseconds) as the log shows it: "11:32:30.633".
std::string ClockText(int64_t wallMs);

// Where the device files a message: its table ("pw", "cfg", "ebg", "reg";
// empty for what no table keeps: replies, notices, events, the AC query),
// and its key as that table's key column prints it ("7/1", "2:100", "42";
// an event channel's or registration's is the connection, peer). Empty for
// a message without a key.
std::string TableOf(const decode::Message &message);
std::string TableKeyOf(const Peer &peer, const decode::Message &message);

// The catalogue codes whose request is answered when sent alone.
bool IsAnsweredCode(uint32_t code);

}  // namespace l2vfib::emu

#endif
