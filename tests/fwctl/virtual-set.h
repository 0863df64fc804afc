// A virtual set with the example modules on it, made anew for each test and removed with it.
#ifndef TESTS_FWCTL_VIRTUAL_SET_H
#define TESTS_FWCTL_VIRTUAL_SET_H

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/run-program.h"

class VirtualSet
{
public:
    VirtualSet();
    ~VirtualSet();
    VirtualSet(const VirtualSet&) = delete;
    VirtualSet& operator=(const VirtualSet&) = delete;

    // Switches the set on for a shell script, in which fwctl is found; the daemon does not run.
    Outcome run(const std::string& script);

    // A file of the set, by its path there, before the set is switched on.
    std::filesystem::path file(const std::string& path) const;
    void write(const std::string& path, const std::string& content, int mode = 0644);
    // An image of that firmware in the system image, which the upgrade screen may offer.
    void addSystemImage(const std::string& firmwareName);
    // Puts one of the faulty modules into the product's control directory.
    void addModule(const std::string& name);

private:
    void put(std::vector<std::string> words); // as `vset put SET` takes them

    std::filesystem::path path_;
};

std::string readFile(const std::filesystem::path& path);

#endif
