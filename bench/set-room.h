// The inside of a virtual set, for rows that need the places of one.
#ifndef BENCH_SET_ROOM_H
#define BENCH_SET_ROOM_H

#include <string>
#include <vector>

namespace bench
{

enum class SetClock { kNone, kAtPace }; // none: as on a television

// Goes on in a temporary set of its own, unless this process is in one: for the beginning of `main`. Returns
// the exit status when there is none to be had.
int enterSet(char** argv, SetClock clock = SetClock::kNone);

// Modules NAME0, NAME1 ... with a library of their own, which says that every image is newer.
class Modules
{
public:
    // Makes them in a directory of their own, `count` of them.
    Modules(const std::string& name, int count);

    // Their directory is what the daemon finds its libraries in from now on.
    void install() const;
    // Gives each an image of so many bytes in the system image, with its information file.
    void giveImages(int bytes) const;

    const std::vector<std::string>& names() const { return names_; }
    std::string library(const std::string& name) const { return directory_ + "/" + name + ".so"; }

private:
    std::vector<std::string> names_;
    std::string directory_;
};

// Of a module in the system image.
std::string imageOf(const std::string& name);
std::string informationOf(const std::string& name);

} // namespace bench

#endif
