#include "capture.h"

#include <pcap/pcap.h>
#include <sys/time.h>

#include <cstdio>
#include <vector>

namespace l2vfib::emu {

namespace {
constexpr int kSnapLength = 65536 + 8;
constexpr uint16_t kNodes[] = {0x8000, 0x0001, 0};
constexpr uint16_t kPorts[] = {2670, 12566, 0};
}  // namespace

Capture::Capture(const std::string &path) {
    if (path.empty()) return;
    pcap_ = pcap_open_dead(DLT_USER0, kSnapLength);
    if (pcap_ != nullptr) dumper_ = pcap_dump_open(pcap_, path.c_str());
    if (dumper_ == nullptr)
        std::fprintf(stderr, "l2vfib-emu: no capture to %s: %s\n", path.c_str(),
                     pcap_ ? pcap_geterr(pcap_) : "pcap");
}

Capture::~Capture() {
    if (dumper_ != nullptr) pcap_dump_close(dumper_);
    if (pcap_ != nullptr) pcap_close(pcap_);
}

void Capture::Record(bool fromDevice, int service, std::span<const uint8_t> datagram) {
    if (dumper_ == nullptr || service < 0 || service > 2) return;
    std::vector<uint8_t> record{static_cast<uint8_t>(fromDevice ? 1 : 0), static_cast<uint8_t>(service),
                                static_cast<uint8_t>(kNodes[service] >> 8), static_cast<uint8_t>(kNodes[service]),
                                static_cast<uint8_t>(kPorts[service] >> 8), static_cast<uint8_t>(kPorts[service]),
                                0, 0};
    record.insert(record.end(), datagram.begin(), datagram.end());
    pcap_pkthdr head{};
    gettimeofday(&head.ts, nullptr);
    head.caplen = head.len = static_cast<bpf_u_int32>(record.size());
    pcap_dump(reinterpret_cast<u_char *>(dumper_), &head, record.data());
    pcap_dump_flush(dumper_);
}

}  // namespace l2vfib::emu
