// ps_mount.h
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include "ps_mount.h"
#include "tests/platform/proof.h"
#include "tests/support/run-program.h"

namespace proof
{

namespace
{

namespace fs = std::filesystem;

const fs::path kPackages = "/opt/usr/apps/appbinarymanager";

// An image with one file, which is called as it is, and a directory to mount it on.
class Image
{
public:
    explicit Image(std::string name) : name_(std::move(name))
    {
        const fs::path content = "/tmp/proof-" + name_;
        fs::create_directories(content);
        std::ofstream(content / name_) << name_;
        fs::create_directories(directory());
        const Outcome made =
            runProgram({"mksquashfs", content.string(), path(), "-noappend", "-quiet", "-no-progress"});
        if (made.status != 0) {
            throw std::runtime_error("mksquashfs: " + made.err);
        }
    }
    ~Image()
    {
        while (unmount()) {
            ;
        }
        fs::remove(path());
    }
    Image(const Image&) = delete;
    Image& operator=(const Image&) = delete;

    std::string path() const { return kPackages / (name_ + ".img"); }
    std::string directory() const { return kPackages / "emps" / name_; }
    std::string file() const { return directory() + "/" + name_; }
    bool isMounted() const { return fs::exists(file()); }

    std::string command() const { return "-o ro,loop,nodev,nosuid " + path() + " " + directory(); }
    bool mount() const
    {
        char text[1024] = {};
        snprintf(text, sizeof text, "%s", command().c_str());
        int result = 0;
        return PS_Mount(text, sizeof text, 0, &result) == 0 && result == 0;
    }
    bool unmount() const
    {
        int result = 0;
        const std::string where = directory();
        return PS_Umount(where.c_str(), static_cast<int>(where.size()), 0, &result) == 0 && result == 0;
    }

private:
    const std::string name_;
};

std::string readOnly()
{
    const Image image("one");
    image.mount();
    std::ofstream made(image.directory() + "/made");
    return made.is_open() ? "a file was made in it" : "";
}

std::string withoutDevices()
{
    const Image image("one");
    image.mount();
    struct statvfs status{};
    statvfs(image.directory().c_str(), &status);
    return (status.f_flag & ST_NODEV) != 0 && (status.f_flag & ST_NOSUID) != 0 ? ""
                                                                               : "neither nodev nor nosuid";
}

std::string eachItsImage()
{
    const Image one("one");
    const Image two("two");
    one.mount();
    two.mount();
    return one.isMounted() && two.isMounted() ? "" : "the other one's files are in it";
}

std::string missingImage()
{
    const Image image("one");
    fs::remove(image.path());
    return image.mount() ? "success without an image" : "";
}

std::string busyDirectory()
{
    const Image image("one");
    image.mount();
    const int held = open(image.file().c_str(), O_RDONLY | O_CLOEXEC);
    const bool isUnmounted = image.unmount();
    const bool isStillThere = image.isMounted();
    close(held);
    return isUnmounted && isStillThere ? "unmounted with success, and still mounted" : "";
}

std::string freeDirectory()
{
    const Image image("one");
    image.mount();
    return image.unmount() ? "" : "it cannot be unmounted";
}

std::string mountedOnReturn()
{
    const Image image("one");
    return !image.mount() || image.isMounted() ? "" : "mounted with success, and empty";
}

std::string commandLeftAlone()
{
    const Image image("one");
    char text[1024] = {};
    snprintf(text, sizeof text, "%s", image.command().c_str());
    int result = 0;
    PS_Mount(text, sizeof text, 0, &result);
    return image.command() == text ? "" : "the command is another one afterwards";
}

std::string directoryOfItsLength()
{
    const Image image("one");
    image.mount();
    const std::string more = image.directory() + "-and-more";
    int result = 0;
    const int returned = PS_Umount(more.c_str(), static_cast<int>(image.directory().size()), 0, &result);
    return returned == 0 && result == 0 ? "" : "what stands behind it was read as well";
}

std::string nodeMade()
{
    const char command[1024] = "-m 0660 -Z * /dev/loop60  b 7 60";
    int result = 0;
    const int returned = PS_Mknod(command, sizeof command, 0, &result);
    struct stat status{};
    const bool isThere = stat("/dev/loop60", &status) == 0;
    unlink("/dev/loop60");
    unlink("/dev/loop61");
    return returned == 0 && result == 0 && !isThere ? "made with success, and not there" : "";
}

std::string modeOfNode()
{
    const char command[1024] = "-m 0660 -Z * /dev/loop60  b 7 60";
    int result = 0;
    PS_Mknod(command, sizeof command, 0, &result);
    struct stat status{};
    stat("/dev/loop60", &status);
    unlink("/dev/loop60");
    return (status.st_mode & 0777) == 0660 ? "" : "its mode is another one";
}

std::string numberOfNode()
{
    const char command[1024] = "-m 0660 -Z * /dev/loop63  b 7 63";
    int result = 0;
    PS_Mknod(command, sizeof command, 0, &result);
    struct stat made{};
    struct stat first{};
    stat("/dev/loop63", &made);
    stat("/dev/loop0", &first);
    unlink("/dev/loop63");
    return minor(made.st_rdev) - minor(first.st_rdev) == 63 ? "" : "it has another number";
}

// Of a file that is no image, again and again.
std::string descriptorsOfRefusals()
{
    const Image image("one");
    std::ofstream(image.path()) << std::string(8192, 'x');
    return growth("descriptors", openDescriptors, 5, [&] { image.mount(); });
}

std::string mountOfAnother()
{
    const Image image("one");
    inAnotherProcess("--mount", image.command());
    if (!image.isMounted()) {
        return "it is not mounted";
    }
    const bool isUnmounted = image.unmount();
    runProgram({"umount", image.directory()});
    return isUnmounted ? "" : "another process's mount cannot be unmounted";
}

} // namespace

const std::vector<Proof>& mountProofs()
{
    static const std::vector<Proof> proofs = {
        {"mount-writable", readOnly},
        {"mount-with-devices", withoutDevices},
        {"mount-same-image", eachItsImage},
        {"mount-failure-in-errno", missingImage},
        {"mount-lock-left",
         [] {
             char command[1024] =
                 "-o ro,loop,nodev,nosuid /srv/missing.img /opt/usr/apps/appbinarymanager/emps/gone";
             int result = 0;
             PS_Mount(command, sizeof command, 0, &result);
             return fs::exists("/opt/usr/apps/appbinarymanager/emps/gone.lock") ? "it is there" : "";
         }},
        {"mount-refused-left-open", descriptorsOfRefusals},
        {"umount-busy-succeeds", busyDirectory},
        {"mount-held-open", freeDirectory},
        {"mount-later", mountedOnReturn},
        {"mount-splits-in-place", commandLeftAlone},
        {"umount-past-length", directoryOfItsLength},
        {"mknod-not-made", nodeMade},
        {"mknod-mode-lost", modeOfNode},
        {"mknod-last-digit", numberOfNode},
        {"umount-own-only", mountOfAnother},
        {"mknod-next-number", nodeMade},
    };
    return proofs;
}

} // namespace proof
