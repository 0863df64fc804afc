#include "tests/proof/chips.h"

#include <cctype>
#include <map>

#include "common/files/whole-file.h"
#include "sdk/examples/common/firmware.h"

namespace proof
{

namespace
{

namespace fs = std::filesystem;

std::vector<unsigned char> payloadOf(const std::string& firmware, const std::string& version)
{
    const std::string file = common::readWhole(chipImages() / version / firmware / (firmware + ".bin"));
    const auto image = parseImage(reinterpret_cast<const unsigned char*>(file.data()), file.size());
    return image ? image->payload : std::vector<unsigned char>();
}

std::string firmwareOf(const std::string& chip)
{
    return std::string(1, static_cast<char>(std::toupper(static_cast<unsigned char>(chip[0])))) +
           chip.substr(1);
}

const std::vector<unsigned char>& payloadFor(const std::string& chip, const std::string& version)
{
    static std::map<std::pair<std::string, std::string>, std::vector<unsigned char>> known;
    const auto [place, isNew] = known.try_emplace({chip, version});
    if (isNew) {
        place->second = payloadOf(firmwareOf(chip), version);
    }
    return place->second;
}

SlottedFlash flashOf(const tarnwick::Television& tv, const std::string& chip)
{
    return {tv.outside("/var/lib/hardware/" + chip), {}};
}

} // namespace

const std::vector<std::string>& chips()
{
    static const std::vector<std::string> all = {"tuner", "panel", "soundbar"};
    return all;
}

fs::path chipImages()
{
    return CHIP_IMAGES;
}

std::optional<std::string> versionOn(const tarnwick::Television& tv, const std::string& chip)
{
    return flashOf(tv, chip).activeVersion();
}

std::string damageOn(const tarnwick::Television& tv, const std::string& chip)
{
    const SlottedFlash flash = flashOf(tv, chip);
    const auto version = flash.activeVersion();
    const auto firmware = flash.activeFirmware();
    const bool isWhole = version && firmware && (*version == "1.0" || *version == "1.1") &&
                         *firmware == payloadFor(chip, *version);
    return isWhole ? "" : version ? "a damaged version " + *version : "no firmware at all";
}

} // namespace proof
