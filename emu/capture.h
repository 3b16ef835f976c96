// A pcap capture of every datagram the emulated device receives and sends.
// Link type USER0; each record starts with an 8-byte pseudo-header:
//
//    0     1         2       4       6      8
//   +-----+---------+-------+-------+------+---------------------
//   | dir | service | node  | port  | 0 0  | the datagram
//   |     |         | be16  | be16  |      |
//   +-----+---------+-------+-------+------+---------------------
//   dir: 0 to the device, 1 from it; service: 0 forwarding, 1 event,
//   2 control (node and port 0)
#ifndef L2VFIB_EMU_CAPTURE_H
#define L2VFIB_EMU_CAPTURE_H

#include <cstdint>
#include <span>
#include <string>

typedef struct pcap pcap_t;
typedef struct pcap_dumper pcap_dumper_t;

namespace l2vfib::emu {

class Capture {
  public:
    // An empty path captures nothing.
    explicit Capture(const std::string &path);
    ~Capture();
    Capture(const Capture &) = delete;
    Capture &operator=(const Capture &) = delete;

    void Record(bool fromDevice, int service, std::span<const uint8_t> datagram);

  private:
    pcap_t *pcap_ = nullptr;
    pcap_dumper_t *dumper_ = nullptr;
};

}  // namespace l2vfib::emu

#endif
