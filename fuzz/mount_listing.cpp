// The mount listing: made from the kernel's mount table, and read by the disk ejection, which
// takes the input as the listing itself (nothing is ejected: no volume is found).
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "framework/eject/eject.h"
#include "platform/linux/mounts_file.h"
#include "platform/service.h"
#include "platform/sleeper.h"
#include "platform/volumes.h"

namespace {

class GivenListing final : public qvk::platform::Volumes {
public:
    std::string listing;
    std::optional<std::string> MountListing() override { return listing; }
    std::optional<qvk::platform::VolumeRef> VolumeForPath(const std::string&) override { return std::nullopt; }
    bool EjectVolumeSync(const qvk::platform::VolumeRef&, std::uint32_t&) override { return false; }
};

class NoWait final : public qvk::platform::Sleeper {
public:
    void Usleep(std::uint32_t) override {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static GivenListing volumes;
    static NoWait sleeper;
    static qvk::platform::Replace<qvk::platform::Volumes> replacedVolumes(volumes);
    static qvk::platform::Replace<qvk::platform::Sleeper> replacedSleeper(sleeper);
    std::string_view input(reinterpret_cast<const char*>(data), size);
    qvk::platform::MountListingOf(input);
    volumes.listing = std::string(input);
    QVK_Framework_EjectDisk("sr0", 1);
    return 0;
}
