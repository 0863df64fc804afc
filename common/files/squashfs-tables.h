// What the kernel demands of a squashfs image's superblock and tables before it mounts it, beyond what the
// reader (libsquashfs) does.
#ifndef COMMON_FILES_SQUASHFS_TABLES_H
#define COMMON_FILES_SQUASHFS_TABLES_H

#include <sqfs/io.h>
#include <sqfs/super.h>

namespace common
{

// Throws Failure, a text to be put behind the image's path, when the kernel would not mount it.
void requireMountableTables(sqfs_file_t& file, const sqfs_super_t& super);

} // namespace common

#endif
