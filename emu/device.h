// The emulated device: the forwarding service (node 0x8000, port 2670), the
// event service (the local node, port 12566) and the control-call endpoint,
// as one state machine over datagrams. It owns no socket: the server hands
// it what arrived and sends what it returns, so every rule here can be
// driven byte for byte.
#ifndef L2VFIB_EMU_DEVICE_H
#define L2VFIB_EMU_DEVICE_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "l2vfib_decode.h"
#include "table.h"

namespace l2vfib::emu {

using Bytes = std::vector<uint8_t>;

// A peer is the sender's socket address as the kernel reported it (an
// abstract autobound name for the library's sockets).
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
};

class Device {
  public:
    // log receives every line the device logs (the server writes them out).
    explicit Device(std::function<void(const std::string &)> log = {});

    // A datagram to the forwarding service from peer: applies every sound
    // message to the tables and returns the answers to send back.
    std::vector<Outgoing> Forwarding(const Peer &from, std::span<const uint8_t> datagram);
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

    // A client whose socket is gone: no more notices to it.
    void DropClient(const Peer &peer);

    Table *FindTable(const std::string &name);
    const std::vector<Table *> &Tables() { return order_; }
    const Settings &Setup() const { return settings_; }
    const Counters &Count() const { return counters_; }
    bool StopAsked() const { return stopAsked_; }

  private:
    void Log(const std::string &line);
    // Counts a decoded message; a faulty one is counted as an error and
    // logged with what (who sent it), and false is returned.
    bool Accept(const decode::Message &message, const std::string &what);
    void Apply(const decode::Message &message);
    void ApplyEntry(Table &table, const decode::Message &message, std::vector<uint64_t> key,
                    const std::string &keyText);
    void ApplyMembers(Table &table, const decode::Message &message, uint16_t keyItem,
                      uint16_t memberItem);
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
    bool stopAsked_ = false;

    Table pw_{"pw", "pseudowires: key id/subId, header byte 7, TLV 13 and 12"};
    Table minm_{"minm", "MAC-in-MAC entries: key id/subId, TLV 41, 42 and 43"};
    Table ac_{"ac", "attachment circuits: key id/subId, TLV 22 information, TLV 144 option"};
    Table acFlag_{"ac-flag", "the attachment-circuit flag state"};
    Table tunnel_{"tunnel", "overlay tunnels: key words of TLV 70, object type 14 or 18, TLV 71"};
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
    Table log_tail_{"log", "the last lines of the device's log"};
    std::vector<Table *> order_;

    // The AC data entries (16 bytes each), by attachment-circuit key.
    std::map<std::vector<uint64_t>, std::array<uint8_t, 16>> acData_;
    // Forwarding-service peers: every sender seen, and the clients that
    // notices go to (the daemons' service sockets).
    std::set<Peer> seen_;
    std::deque<Peer> seenOrder_;
    std::vector<Peer> clients_;
    // Event peers get small numbers for their rows' keys.
    std::map<Peer, uint64_t> channelIds_;
    uint64_t nextChannelId_ = 1;
    uint64_t nextReg_ = 1;
    uint32_t acFlagMessages_ = 0;
};

// The sender's address as printed: "@00012" for an abstract name.
std::string PeerText(const Peer &peer);

// The catalogue codes whose request is answered when sent alone.
bool IsAnsweredCode(uint32_t code);

}  // namespace l2vfib::emu

#endif
