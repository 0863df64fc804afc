// The functions of a vendor's library that is there when a module is linked, but not on the set.
int vendorFlush(void);

__attribute__((visibility("default"))) int vendorFlush(void)
{
    return 0;
}
