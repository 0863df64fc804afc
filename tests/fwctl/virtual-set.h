// A set with the example modules on it, in which fwctl is tried without the daemon.
#ifndef TESTS_FWCTL_VIRTUAL_SET_H
#define TESTS_FWCTL_VIRTUAL_SET_H

#include <filesystem>
#include <string>

#include "include/tarnwick/television.h"
#include "tests/support/run-program.h"

class VirtualSet : public tarnwick::Television
{
public:
    explicit VirtualSet(bool isRootless = false);

    // Switches the set on for a shell script, in which fwctl is found.
    Outcome run(const std::string& script);

    // A file of the set, by its path there, before the set is switched on.
    void write(const std::string& path, const std::string& content, int mode = 0644);
    // An image of that firmware in the system image, which the upgrade screen may offer.
    void addSystemImage(const std::string& firmwareName);
    // Puts one of the faulty modules into the product's control directory.
    void addModule(const std::string& name);
};

// The script with what is in moments.sh, which is for those that act in the middle of an update.
std::string moments(const std::string& script);

#endif
