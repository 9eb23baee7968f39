/* A host program built against the installed header and library only. */
#include <Brackvista40Lib1.h>
#include <stdio.h>

int main(void) {
    float table[256];
    unsigned char px[4] = {128, 64, 32, 129};
    float rgb[3];
    MtRandom mt;

    if (exp_lut_old(table) != 256 || table[136] != 1.0f) return 1;
    if (rgbe2float(px, table, 1, 2, 3, 0, rgb) != 129 || rgb[0] != 1.0f || rgb[2] != 0.25f)
        return 2;
    if (arrondi(2.5f) != 2 || progress(NULL, 0.5f) != 1) return 3;
    mt_init(&mt);
    if (mt_random(&mt) != (397u ^ 0x9908b0dfu)) return 4;
    if (floatToHalf(1.0f) != 0x3c00) return 5;
    printf("installed library works\n");
    return 0;
}
