// The note by which a binary without a command line says what it is: `readelf --notes`, and coredumpctl for a
// process that crashed, show it. Layout and owner are those of ELF package metadata, a JSON text.
#include <stdint.h>

#include "tarnwick-version.h"

#define METADATA                                                                                             \
    "{\"name\":\"tarnwick\",\"version\":\"" TARNWICK_VERSION "\",\"commit\":\"" TARNWICK_COMMIT "\"}"

struct PackageNote {
    uint32_t nameSize; // bytes, with the closing zero
    uint32_t textSize; // the same
    uint32_t type;
    char name[4];
    char text[(sizeof METADATA + 3) / 4 * 4]; // notes are padded to four bytes
};

__attribute__((used, section(".note.package"), aligned(4))) //
static const struct PackageNote packageNote = {4, sizeof METADATA, 0xcafe1a7e, "FDO", METADATA};
