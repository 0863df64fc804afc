// The entry point of the set's signature library. It holds no state: keys are read anew for each file, so a
// key that is put into the set's directory, or taken out of it, counts at once.
#include "common/daemon/places.h"
#include "common/files/unique-fd.h"
#include "vset/signature/image-signature.h"

namespace
{

constexpr int kWholeFile = 0; // the only mode

int verifyWithKeysOfTheSet(const char* path)
{
    const common::UniqueFd file(signature::openRegularFile(path));
    if (!file) {
        return 0;
    }
    const auto verdict =
        signature::verify(file.get(), signature::readKeyDirectory(common::places::kSigningKeys));
    return verdict == signature::Verdict::Signed ? 1 : 0;
}

} // namespace

// Non-zero when the file is signed by a key of the set. `caller` names the asking program; all are treated
// alike. No exception leaves it, and whatever goes wrong makes the file an unsigned one.
extern "C" __attribute__((visibility("default"))) int verifyFile(int mode, const char* path,
                                                                 const char* /*caller*/)
try {
    if (mode != kWholeFile || path == nullptr) {
        return 0;
    }
    return verifyWithKeysOfTheSet(path);
} catch (...) {
    return 0;
}
