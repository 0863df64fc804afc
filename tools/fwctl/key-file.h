// The key of encrypted images: in one place of memory, wiped when it is done with.
#ifndef FWCTL_KEY_FILE_H
#define FWCTL_KEY_FILE_H

#include <string>

class Key
{
public:
    static constexpr int kSize = 32; // bytes, of AES-256

    // Reads 32 raw bytes or 64 hexadecimal digits (a newline may follow). Throws Failure for anything else,
    // and for a file that others than its owner may read; no message holds anything of the file.
    explicit Key(const std::string& path);
    ~Key();
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    const unsigned char* bytes() const { return bytes_; }

private:
    unsigned char bytes_[kSize] = {};
};

#endif
