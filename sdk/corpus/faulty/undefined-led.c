// A source file was forgotten in the link: chip_led_blink is nowhere.
// finds: F106
#define OWN_allUpdateDone
#include "chip.h"

void chip_led_blink(int times);

int allUpdateDone(void)
{
    chip_led_blink(3);
    return 0;
}
