extern "C" void vsetClockPlaceholder();
void vsetClockPlaceholder() {}
