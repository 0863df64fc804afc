// A signature library without its entry point.
extern "C" int verifyNothing();
extern "C" int verifyNothing()
{
    return 0;
}
