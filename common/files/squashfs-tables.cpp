#include "common/files/squashfs-tables.h"

#include <array>
#include <sqfs/block.h>
#include <string>

#include "common/errors.h"

namespace common
{

namespace
{
constexpr sqfs_u64 kNone = ~sqfs_u64{0}; // where a table would begin that there is not
constexpr sqfs_u64 kBlock = SQFS_META_BLOCK_SIZE;
constexpr sqfs_u64 kPlace = sizeof(sqfs_u64); // of a block, in the index of a table

sqfs_u64 readNumber(sqfs_file_t& file, sqfs_u64 place)
{
    std::array<sqfs_u8, kPlace> bytes{};
    if (file.read_at(&file, place, bytes.data(), bytes.size()) != 0) {
        throw Failure("is cut off, or damaged");
    }
    sqfs_u64 number = 0;
    for (std::size_t index = bytes.size(); index > 0; --index) {
        number = number << 8 | bytes[index - 1];
    }
    return number;
}

// One of the tables, which lie behind each other at the image's end, each with its index behind its blocks.
struct Table {
    const char* name;
    sqfs_u64 entries;
    sqfs_u64 entrySize;
    sqfs_u64 index; // where that begins
};

// Gives where the table's first block begins; its index must end at `end`.
sqfs_u64 requireTable(sqfs_file_t& file, const Table& table, sqfs_u64 end)
{
    const sqfs_u64 blocks = (table.entries * table.entrySize + kBlock - 1) / kBlock;
    const std::string damaged = std::string("has a damaged table of ") + table.name;
    if (table.entries == 0 || table.index >= end || end - table.index != blocks * kPlace) {
        throw Failure(damaged);
    }
    sqfs_u64 next = table.index;
    for (sqfs_u64 number = blocks; number > 0; --number) {
        const sqfs_u64 begin = readNumber(file, table.index + (number - 1) * kPlace);
        if (begin >= next || next - begin > kBlock + sizeof(sqfs_u16)) {
            throw Failure(damaged);
        }
        next = begin;
    }
    return next;
}

// Their table has a head of its own: where its first block begins, and how many sets of attributes there are.
sqfs_u64 requireAttributes(sqfs_file_t& file, const sqfs_super_t& super)
{
    constexpr sqfs_u64 kHead = 16;
    if (super.bytes_used < kHead || super.xattr_id_table_start > super.bytes_used - kHead) {
        throw Failure("has a damaged table of attributes");
    }
    const sqfs_u64 entries = readNumber(file, super.xattr_id_table_start + kPlace) & 0xFFFFFFFF;
    requireTable(file, {"attributes", entries, 16, super.xattr_id_table_start + kHead}, super.bytes_used);
    return readNumber(file, super.xattr_id_table_start);
}
} // namespace

void requireMountableTables(sqfs_file_t& file, const sqfs_super_t& super)
{
    if (super.bytes_used > file.get_size(&file)) {
        throw Failure("is cut off: it says that it has " + std::to_string(super.bytes_used) + " bytes");
    }
    sqfs_u64 end = super.bytes_used;
    if (super.xattr_id_table_start != kNone) {
        end = requireAttributes(file, super);
    }
    end = requireTable(file, {"owners", super.id_count, 4, super.id_table_start}, end);
    if (super.export_table_start != kNone) {
        end = requireTable(file, {"exported files", super.inode_count, 8, super.export_table_start}, end);
    }
    if (super.fragment_entry_count > 0) {
        const sqfs_u64 places = (super.fragment_entry_count * sqfs_u64{16} + kBlock - 1) / kBlock;
        if (super.fragment_table_start >= end || end - super.fragment_table_start < places * kPlace) {
            throw Failure("has a damaged table of fragments");
        }
        end = readNumber(file, super.fragment_table_start);
    }
    if (super.directory_table_start > end || super.inode_table_start >= super.directory_table_start) {
        throw Failure("has a damaged table of files");
    }
}

} // namespace common
