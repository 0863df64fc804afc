#include "common/files/package-image.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <sqfs/compressor.h>
#include <sqfs/data_reader.h>
#include <sqfs/dir.h>
#include <sqfs/dir_reader.h>
#include <sqfs/error.h>
#include <sqfs/inode.h>
#include <sqfs/io.h>
#include <sqfs/super.h>

#include "common/errors.h"
#include "common/files/lzo.h"
#include "common/files/regular-file.h"
#include "common/files/squashfs-tables.h"

namespace common
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

struct FreeEntry {
    void operator()(sqfs_dir_entry_t* entry) const { sqfs_free(entry); }
};

const char* reasonOf(int error)
{
    switch (error) {
    case SQFS_ERROR_ALLOC:
        return "there is no memory for what it says it needs";
    case SQFS_ERROR_IO:
        return "the file cannot be read";
    case SQFS_ERROR_OUT_OF_BOUNDS:
        return "the file ends too soon, or names a place behind its end";
    case SQFS_ERROR_UNSUPPORTED:
        return "it is made in a way that is not known here";
    case SQFS_ERROR_LINK_LOOP:
        return "a directory lies in itself";
    default:
        return "its structure is damaged";
    }
}

void check(int result, const std::string& what)
{
    if (result != 0) {
        throw Failure(what + " (" + reasonOf(result) + ")");
    }
}

using Entry = PackageImage::Entry;

Entry::Kind kindOf(const sqfs_inode_generic_t& inode)
{
    switch (inode.base.type) {
    case SQFS_INODE_FILE:
    case SQFS_INODE_EXT_FILE:
        return Entry::Kind::kFile;
    case SQFS_INODE_DIR:
    case SQFS_INODE_EXT_DIR:
        return Entry::Kind::kDirectory;
    case SQFS_INODE_SLINK:
    case SQFS_INODE_EXT_SLINK:
        return Entry::Kind::kLink;
    default:
        return Entry::Kind::kOther;
    }
}

template <typename Object>
Object* require(Object* object)
{
    return object != nullptr ? object : throw NoMemory("no memory to read the package");
}
} // namespace

namespace
{

// ---- What its blocks are packed with ----

// The one compressor of the kernel's that the reader does not bring. It has no state, and the reader asks for
// nothing but blocks to be unpacked.
sqfs_compressor_t* makeLzo()
{
    auto* const lzo = new sqfs_compressor_t{};
    lzo->base.destroy = [](sqfs_object_t* object) { delete reinterpret_cast<sqfs_compressor_t*>(object); };
    lzo->base.copy = [](const sqfs_object_t*) { return &makeLzo()->base; };
    lzo->do_block = [](sqfs_compressor_t*, const sqfs_u8* in, sqfs_u32 size, sqfs_u8* out, sqfs_u32 room) {
        const std::optional<std::size_t> count = unpackLzo(in, size, out, room);
        return count ? static_cast<sqfs_s32>(*count) : sqfs_s32{SQFS_ERROR_CORRUPTED};
    };
    return lzo;
}

sqfs_compressor_t* makeCompressor(const sqfs_super_t& super)
{
    const auto compression = static_cast<SQFS_COMPRESSOR>(super.compression_id);
    if (compression == SQFS_COMP_LZO) {
        return makeLzo();
    }
    sqfs_compressor_config_t config;
    check(sqfs_compressor_config_init(&config, compression, super.block_size, SQFS_COMP_FLAG_UNCOMPRESS),
          "is compressed in an unknown way");
    sqfs_compressor_t* compressor = nullptr;
    check(sqfs_compressor_create(&config, &compressor), "is compressed in a way that cannot be read");
    return compressor;
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
        return kindOf(*inode) == Entry::Kind::kFile ? std::move(inode) : nullptr;
    }

    // Adds what the directory holds to `entries`; `bytes` is what all files of them unpack to.
    void list(const sqfs_inode_generic_t& parent, const std::string& path, std::vector<Entry>& entries,
              std::uint64_t& bytes);
};

// ---- What is in it ----

namespace
{

// Of a link; the field for its length is another one in an extended inode.
std::string targetOf(const sqfs_inode_generic_t& inode)
{
    const sqfs_u32 size =
        inode.base.type == SQFS_INODE_SLINK ? inode.data.slink.target_size : inode.data.slink_ext.target_size;
    return {reinterpret_cast<const char*>(inode.extra), size};
}

// Throws for a name that leads out of its directory, and for a directory that lies in itself.
std::string pathOf(const std::string& parent, const sqfs_dir_entry_t& entry)
{
    constexpr std::size_t kLongest = 4096; // bytes, as of any path
    const std::string name(reinterpret_cast<const char*>(entry.name), entry.size + std::size_t{1});
    if (name == "." || name == ".." || name.find('/') != std::string::npos ||
        name.find('\0') != std::string::npos) {
        throw Failure("is damaged: a file in it has a name that no file can have");
    }
    if (parent.size() + name.size() > kLongest) {
        throw Failure("is damaged: its directories lie too deep in each other");
    }
    return parent + name;
}

void refuseTooMuch(std::size_t entries, std::uint64_t bytes)
{
    if (entries > PackageImage::kMostEntries) {
        throw Failure("holds more than " + std::to_string(PackageImage::kMostEntries) +
                      " files and directories: too many to look into");
    }
    if (bytes > PackageImage::kMostBytes) {
        throw Failure("would unpack to more than " + std::to_string(PackageImage::kMostBytes >> 30) +
                      " GiB: too much to look into");
    }
}

} // namespace

void PackageImage::Squashfs::list(const sqfs_inode_generic_t& parent, const std::string& path,
                                  std::vector<Entry>& entries, std::uint64_t& bytes)
{
    constexpr const char* kDamaged = "has a damaged directory";
    check(sqfs_dir_reader_open_dir(directory.get(), &parent, 0), kDamaged);
    std::vector<std::pair<std::size_t, Inode>> directories; // where they stand among the entries
    std::vector<Entry> found;
    while (true) {
        sqfs_dir_entry_t* next = nullptr;
        const int result = sqfs_dir_reader_read(directory.get(), &next);
        if (result > 0) {
            break;
        }
        check(result, kDamaged);
        const std::unique_ptr<sqfs_dir_entry_t, FreeEntry> entry(next);
        sqfs_inode_generic_t* raw = nullptr;
        check(sqfs_dir_reader_get_inode(directory.get(), &raw), kDamaged);
        Inode inode(raw);
        Entry told{pathOf(path, *entry), kindOf(*inode), 0, ""};
        if (told.kind == Entry::Kind::kFile) {
            sqfs_inode_get_file_size(inode.get(), &told.size);
            bytes += std::min(told.size, kMostBytes + 1); // so many of them that it stays above it
        } else if (told.kind == Entry::Kind::kLink) {
            told.target = targetOf(*inode);
        } else if (told.kind == Entry::Kind::kDirectory) {
            directories.emplace_back(found.size(), std::move(inode));
        }
        found.push_back(std::move(told));
        refuseTooMuch(entries.size() + found.size(), bytes);
    }
    for (std::size_t index = 0, deeper = 0; index < found.size(); ++index) {
        entries.push_back(std::move(found[index]));
        if (deeper < directories.size() && directories[deeper].first == index) {
            list(*directories[deeper].second, entries.back().path + "/", entries, bytes);
            ++deeper;
        }
    }
}

PackageImage::PackageImage(const std::string& path) : squashfs_(std::make_unique<Squashfs>())
{
    const std::string special = problemOfSpecialFile(path);
    if (!special.empty()) {
        throw Failure(special);
    }
    Squashfs& fs = *squashfs_;
    errno = 0;
    fs.file.reset(sqfs_open_file(path.c_str(), SQFS_FILE_OPEN_READ_ONLY));
    if (!fs.file) {
        throw Failure(std::string("cannot be opened: ") + std::strerror(errno));
    }
    check(sqfs_super_read(&fs.super, fs.file.get()), "is no squashfs image, or a damaged one");
    fs.compressor.reset(makeCompressor(fs.super));
    if ((fs.super.flags & SQFS_FLAG_COMPRESSOR_OPTIONS) != 0 && fs.compressor->read_options != nullptr) {
        check(fs.compressor->read_options(fs.compressor.get(), fs.file.get()),
              "is compressed in an unknown way");
    }
    requireMountableTables(*fs.file, fs.super);
    fs.directory.reset(require(sqfs_dir_reader_create(&fs.super, fs.compressor.get(), fs.file.get(), 0)));
    fs.data.reset(
        require(sqfs_data_reader_create(fs.file.get(), fs.super.block_size, fs.compressor.get(), 0)));
    check(sqfs_data_reader_load_fragment_table(fs.data.get(), &fs.super), "has a damaged fragment table");
    sqfs_inode_generic_t* root = nullptr;
    check(sqfs_dir_reader_get_root_inode(fs.directory.get(), &root), "has a damaged root directory");
    sqfs_free(root);
}

PackageImage::~PackageImage() = default;

std::vector<PackageImage::Entry> PackageImage::list()
{
    sqfs_inode_generic_t* raw = nullptr;
    check(sqfs_dir_reader_get_root_inode(squashfs_->directory.get(), &raw), "has a damaged root directory");
    const Inode root(raw);
    std::vector<Entry> entries;
    std::uint64_t bytes = 0;
    squashfs_->list(*root, "", entries, bytes);
    return entries;
}

bool PackageImage::contains(const std::string& name)
{
    return squashfs_->find(name) != nullptr;
}

std::uint64_t PackageImage::sizeOf(const std::string& name)
{
    const Inode inode = squashfs_->find(name);
    sqfs_u64 size = 0;
    if (inode) {
        sqfs_inode_get_file_size(inode.get(), &size);
    }
    return size;
}

std::string PackageImage::problemOf(const std::string& name)
{
    sqfs_inode_generic_t* found = nullptr;
    if (sqfs_dir_reader_find_by_path(squashfs_->directory.get(), nullptr, name.c_str(), &found) != 0) {
        return "";
    }
    switch (kindOf(*Inode(found))) {
    case Entry::Kind::kDirectory:
        return "is not a file but a directory";
    case Entry::Kind::kOther:
        return "is not a file but a pipe, a socket or a device";
    default:
        return "";
    }
}

PackageImage::Source PackageImage::open(const std::string& name)
{
    const std::shared_ptr<sqfs_inode_generic_t> inode = squashfs_->find(name);
    if (!inode) {
        return nullptr;
    }
    sqfs_u64 size = 0;
    sqfs_inode_get_file_size(inode.get(), &size);
    return [this, inode, size, done = sqfs_u64{0}](char* buffer, std::size_t room) mutable {
        if (done >= size) {
            return std::size_t{0};
        }
        const auto wanted = static_cast<sqfs_u32>(std::min<std::size_t>(room, 1 << 20));
        const sqfs_s32 count =
            sqfs_data_reader_read(squashfs_->data.get(), inode.get(), done, buffer, wanted);
        if (count <= 0) {
            throw Failure("is damaged: a file in it cannot be read to its end");
        }
        done += static_cast<sqfs_u64>(count);
        return static_cast<std::size_t>(count);
    };
}

bool PackageImage::read(const std::string& name, const Taker& take)
try {
    const Source source = open(name);
    std::array<char, 65536> chunk;
    while (const std::size_t count = source ? source(chunk.data(), chunk.size()) : 0) {
        if (!take(chunk.data(), count)) {
            break; // seen enough
        }
    }
    return source != nullptr;
} catch (const Failure&) {
    return false;
}

} // namespace common
