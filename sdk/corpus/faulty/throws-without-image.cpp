// doUpdate of a file that is not there: a stream throws.
// finds: F303
#include <fstream>
#include <iterator>
#include <vector>
#define OWN_doUpdate
#include "chip.h"

int doUpdate(const char* name, unsigned long value)
{
    std::ifstream file;
    file.exceptions(std::ios::failbit | std::ios::badbit);
    file.open(name, std::ios::binary);
    file.exceptions(std::ios::goodbit);
    const std::vector<char> text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    const std::vector<unsigned char> data(text.begin(), text.end());
    if (checksumOf(data.data(), data.size()) != value) {
        return fail(EBADMSG);
    }
    return install(data.data(), data.size());
}
