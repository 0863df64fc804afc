// pralis.h: a key is a file, below /run for keys in memory. One that nobody has written is 0.
#include "pralis.h"
#include "values.h"

struct keynode {
    int value;
};

namespace
{

std::string fileOf(const std::string& key)
{
    return key.rfind("memory/", 0) == 0 ? tv::runFile(key) : tv::keptFile(key);
}

tv::Identity identityOf(pralis_key_changed_cb cb)
{
    return reinterpret_cast<tv::Identity>(cb);
}

} // namespace

int pralis_get_int(const char* key, int* value)
{
    *value = tv::read(fileOf(key));
    return 0;
}

int pralis_set_int(const char* key, int value)
{
    return tv::write(fileOf(key), value) ? 0 : -1;
}

int pralis_notify_key_changed(const char* key, pralis_key_changed_cb cb, void* user_data)
{
    const auto tell = [cb, user_data](int, int now) {
        keynode node = {now};
        cb(&node, user_data);
    };
    return tv::watch(fileOf(key), identityOf(cb), tell) ? 0 : -1;
}

int pralis_ignore_key_changed(const char* key, pralis_key_changed_cb cb)
{
    return tv::ignore(fileOf(key), identityOf(cb)) ? 0 : -1;
}

int pralis_keynode_get_int(const keynode* node)
{
    return node->value;
}
