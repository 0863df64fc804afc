#include "tools/fwctl/package-image.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <sqfs/compressor.h>
#include <sqfs/data_reader.h>
#include <sqfs/dir_reader.h>
#include <sqfs/error.h>
#include <sqfs/inode.h>
#include <sqfs/io.h>
#include <sqfs/super.h>

#include "tools/fwctl/commands/command.h"

namespace fwctl
{

namespace
{
struct Destroy {
    template <typename Object>
    void operator()(Object* object) const
    {
        sqfs_destroy(object);
    }
};
template <typename Object>
using Owned = std::unique_ptr<Object, Destroy>;

struct FreeInode {
    void operator()(sqfs_inode_generic_t* inode) const { sqfs_free(inode); }
};
using Inode = std::unique_ptr<sqfs_inode_generic_t, FreeInode>;

void check(int result, const std::string& what)
{
    if (result != 0) {
        throw common::Failure(what + " (squashfs error " + std::to_string(result) + ")");
    }
}

template <typename Object>
Object* require(Object* object)
{
    return object != nullptr ? object : throw common::Failure("no memory to read the package");
}
} // namespace

struct PackageImage::Squashfs {
    Owned<sqfs_file_t> file;
    sqfs_super_t super = {};
    Owned<sqfs_compressor_t> compressor;
    Owned<sqfs_dir_reader_t> directory;
    Owned<sqfs_data_reader_t> data;

    // Null when there is no such regular file.
    Inode find(const std::string& name)
    {
        sqfs_inode_generic_t* found = nullptr;
        if (sqfs_dir_reader_find_by_path(directory.get(), nullptr, name.c_str(), &found) != 0) {
            return nullptr;
        }
        Inode inode(found);
        const bool isFile = inode->base.type == SQFS_INODE_FILE || inode->base.type == SQFS_INODE_EXT_FILE;
        return isFile ? std::move(inode) : nullptr;
    }

    // False when the image is damaged before the file's end.
    bool copy(const sqfs_inode_generic_t& inode, const Taker& take)
    {
        sqfs_u64 size = 0;
        sqfs_inode_get_file_size(&inode, &size);
        std::array<char, 65536> chunk;
        for (sqfs_u64 done = 0; done < size;) {
            const sqfs_s32 count =
                sqfs_data_reader_read(data.get(), &inode, done, chunk.data(), chunk.size());
            if (count <= 0) {
                return false;
            }
            if (!take(chunk.data(), static_cast<std::size_t>(count))) {
                return true; // seen enough
            }
            done += static_cast<sqfs_u64>(count);
        }
        return true;
    }
};

PackageImage::PackageImage(const std::string& path) : squashfs_(std::make_unique<Squashfs>())
{
    Squashfs& fs = *squashfs_;
    errno = 0;
    fs.file.reset(sqfs_open_file(path.c_str(), SQFS_FILE_OPEN_READ_ONLY));
    if (!fs.file) {
        throw common::Failure(std::string("cannot be opened: ") + std::strerror(errno));
    }
    check(sqfs_super_read(&fs.super, fs.file.get()), "is no squashfs image, or a damaged one");
    sqfs_compressor_config_t config;
    const auto compression = static_cast<SQFS_COMPRESSOR>(fs.super.compression_id);
    check(sqfs_compressor_config_init(&config, compression, fs.super.block_size, SQFS_COMP_FLAG_UNCOMPRESS),
          "is compressed in an unknown way");
    sqfs_compressor_t* compressor = nullptr;
    check(sqfs_compressor_create(&config, &compressor), "is compressed in a way that cannot be read");
    fs.compressor.reset(compressor);
    fs.directory.reset(require(sqfs_dir_reader_create(&fs.super, fs.compressor.get(), fs.file.get(), 0)));
    fs.data.reset(
        require(sqfs_data_reader_create(fs.file.get(), fs.super.block_size, fs.compressor.get(), 0)));
    check(sqfs_data_reader_load_fragment_table(fs.data.get(), &fs.super), "has a damaged fragment table");
    sqfs_inode_generic_t* root = nullptr;
    check(sqfs_dir_reader_get_root_inode(fs.directory.get(), &root), "has a damaged root directory");
    sqfs_free(root);
}

PackageImage::~PackageImage() = default;

bool PackageImage::contains(const std::string& name)
{
    return squashfs_->find(name) != nullptr;
}

std::string PackageImage::problemOf(const std::string& name)
{
    sqfs_inode_generic_t* found = nullptr;
    if (sqfs_dir_reader_find_by_path(squashfs_->directory.get(), nullptr, name.c_str(), &found) != 0) {
        return "";
    }
    const Inode inode(found);
    switch (inode->base.type) {
    case SQFS_INODE_FILE:
    case SQFS_INODE_EXT_FILE:
    case SQFS_INODE_SLINK:
    case SQFS_INODE_EXT_SLINK:
        return "";
    case SQFS_INODE_DIR:
    case SQFS_INODE_EXT_DIR:
        return "is not a file but a directory";
    default:
        return "is not a file but a pipe, a socket or a device";
    }
}

bool PackageImage::read(const std::string& name, const Taker& take)
{
    const Inode inode = squashfs_->find(name);
    return inode && squashfs_->copy(*inode, take);
}

} // namespace fwctl
