// The commands of the mount service, from a caller that is trusted less than it.
#include <filesystem>

#include "tests/proof/fuzz/target.h"
#include "vset/psmountd/command-line.h"
#include "vset/psmountd/mount-service.h"

namespace
{

bool isWord(const std::string& text)
{
    return !text.empty() && text.find(' ') == std::string::npos;
}

void requireSafe(const std::string& text)
{
    if (const auto mount = psmount::parseMount(text)) {
        fuzz::require(isWord(mount->image) && mount->image[0] == '/' && isWord(mount->directory) &&
                          mount->directory[0] == '/',
                      "an image and a directory are absolute paths");
        fuzz::require(text.find("ro") != std::string::npos, "nothing is mounted to be written");
    }
    if (const auto node = psmount::parseMknod(text)) {
        fuzz::require(node->loop <= psmount::kHighestLoop && node->mode <= 0777,
                      "a node is one of the set's loop devices");
        fuzz::require(text.find("/dev/loop" + std::to_string(node->loop)) != std::string::npos,
                      "the node is the one that was named");
    }
}

void requireRefused(const psmount::Answer& answer)
{
    fuzz::require(answer.retVal == -1 && answer.result != 0, "a refusal has its reason");
}

void run(std::string_view input)
{
    // The set has neither packages nor mounts: nothing can be mounted or unmounted, whatever is asked for.
    // Loop devices are names only.
    static psmount::MountService service(psmount::MountService::Images::kFuse, 0);
    const std::string text(input.substr(0, input.find('\0'))); // as the bus hands it on
    requireSafe(text);
    requireRefused(service.mount(text));
    requireRefused(service.umount(text));
    if (const auto node = psmount::parseMknod(text)) {
        const psmount::Answer answer = service.mknod(text);
        fuzz::require(answer.retVal == 0 || answer.result != 0, "a refusal has its reason");
        if (answer.retVal == 0) {
            std::filesystem::remove("/dev/loop" + std::to_string(node->loop));
        }
    } else {
        requireRefused(service.mknod(text));
    }
}

const fuzz::Target target("psmountd", run);

} // namespace
