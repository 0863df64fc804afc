// The modules of a set as the service finds them: their images, their packages and mounts, their checks and
// updates.
#ifndef TESTS_PROOF_MODEL_MODULES_H
#define TESTS_PROOF_MODEL_MODULES_H

#include <cstdint>
#include <deque>
#include <string>

#include "tests/proof/model/stage.h"
#include "tests/proof/process/television.h"

namespace proof
{

constexpr int kFromPackage = 2; // who asks for a check or an update
constexpr int kFromSystem = 6;

// A module, and what the last check or update has left of it.
struct Image {
    Module made;
    std::string firmware;
    std::string uiUse;
    bool isNeeded = false;
    bool isBuiltIn = false;
    uint32_t expected = 0;
    bool hasPackage = false;
    bool hasMountPoint = false;
    int mounts = 0;

    explicit Image(const Module& module);
    bool isOffered() const { return isNeeded && (uiUse == "select" || uiUse == "force"); }
    std::string file() const;
    std::string mountPoint() const;
    std::string path(int caller, const std::string& name) const;
    const Source& source(int caller) const { return caller == kFromSystem ? made.builtIn : made.package; }
};

class Modules
{
public:
    explicit Modules(Stage& itsStage) : stage(itsStage) {}

    // Asks the control library.
    void ask(const Image& module, const std::string& function, const std::string& arguments = "");
    void load();
    void request(); // their packages
    // How many checks were positive; adds the lines of the list.
    int checkAll(std::string& lines);
    void tellAll(); // that the updates are done

    void update(Image& module, int caller, const Stage::Step& done);
    void freeHanging();
    std::string status() const; // of packages and mounts

    std::deque<Image> all;
    std::string updateMode = "ok";

private:
    void setContext(const Image& module, int caller);
    int check(Image& module, int caller); // 1: it needs the update
    bool unmount(Image& module);
    bool mount(Image& module);
    void unmountPackage(Image& module);
    int judge(Image& module, int caller);
    void updateLocked(Image& module, int caller, const Stage::Step& done);
    bool isSound(const Image& module, int caller);
    void write(Image& module, int caller, const Stage::Step& done);
    void written(Image& module, int caller, int result);

    Stage& stage;
    Stage::Gate writing; // one update writes at a time, supervised or not
    std::deque<Stage::Step> hanging;
};

} // namespace proof

#endif
