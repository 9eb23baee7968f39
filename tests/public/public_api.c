/* Compiled as strict C99 against the installed header and shared library only. */
#include <Brackvista40Lib1.h>
#include <stdio.h>
#include <string.h>

static int failures = 0;
#define CHECK(c)              \
    ((c) ? (void)0            \
         : (void)(++failures, \
                  fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #c)))

typedef struct {
    int32_t index, threaded, first, end;
    int32_t *rows_seen;
} Rec;

static void *mark_rows(void *p) {
    Rec *r = (Rec *)p;
    int y;
    for (y = r->first; y < r->end; ++y) r->rows_seen[y] += 1;
    return NULL;
}

static void stop_cb(int32_t *cancel, float fraction) {
    (void)fraction;
    *cancel = 1;
}

int main(void) {
    int32_t seen[37], st[3] = {20000, 40000, 30000}, rec[7] = {1, 100, 8, 1, 0, 100, 0};
    Rec templ;
    TmParam tp;
    DimParam dim;
    LogLumStats ls;
    int y, x0, y0, x1, y1;
    float r[3], lut[256], ex[2], hs[3], img[12], hsl[3], xyz[3];
    const float red[3] = {1.0f, 0.0f, 0.0f};
    unsigned char px[2 * 16 * 3], out[4 * 16];

    /* Record sizes are part of the ABI. */
    CHECK(sizeof(TmParam) == 240 && sizeof(DimParam) == 40);
    CHECK(sizeof(optimParam) == 72 && sizeof(LogLumStats) == 24);
    CHECK(progress(NULL, 0.5f) == 1 && progress(stop_cb, 0.5f) == 0);
    memset(seen, 0, sizeof seen);
    memset(&templ, 0, sizeof templ);
    templ.rows_seen = seen;
    CHECK(DivideWork(0, 37, 3, mark_rows, &templ, sizeof templ) == 0);
    for (y = 0; y < 37; ++y) CHECK(seen[y] == 1);
    get_tile_coordinates(100, 80, 40, 40, 3, 2, 8, 1, 1, &x0, &y0, &x1, &y1);
    CHECK(x0 == 32 && x1 == 88 && y0 == 32 && y1 == 80);

    /* HDR generation. */
    CHECK(guess_ev(0, 3, st, r, 1.0f) == 3 && r[1] == 2.0f && r[2] == 1.0f && r[0] == 0.5f);
    CHECK(get_ev(1, rec) == 1);
    memset(px, 100, 16 * 3);
    memset(px + 16 * 3, 200, 16 * 3);
    CHECK(bv_hdr_merge(NULL, 0, 2, 1, 16, 3, 1.0f, 8, 0, lut, ex, px, hs, out) == 16);
    CHECK(ex[0] == 1.0f && ex[1] == 2.0f && out[3] > 0 && out[3] < 255);

    /* Tone mapping and colour adjustment: records by pointer, the image
     * description by value. */
    CHECK(tmparam_default(0, 0, &tp) == 0);
    init_dim_param(&dim);
    dim.width = 2;
    dim.height = 2;
    dim.bitsIn = 32;
    dim.sourceKind = 10;
    for (y = 0; y < 12; ++y) img[y] = (float)(y + 1) * 0.1f;
    memset(&ls, 0, sizeof ls);
    ls.v[0] = -2.5f;
    ls.v[1] = 0.2f;
    ls.v[3] = -1.0f;
    ls.v[4] = 0.1f;
    /* Two threads: the last band's row count. */
    CHECK(tm_simple(&tp, NULL, &ls, NULL, img, (uint16_t *)out, dim, 2) == 1 && out[11] > out[0]);
    CHECK(has_color_param(BV_CA_MODE_ALL, &tp) == 0);
    tp.slot[BV_CA_SLOT_MASTER_SAT] = -100.0f;
    dim.bitsOut = 8;
    CHECK(bv_adjust_colors(1, NULL, 0, NULL, &tp, out, dim) == 2 && out[0] == out[1] &&
          out[1] == out[2]);
    CHECK(rgb_to_hsl(red, hsl) == 1 && hsl[1] == 1.0f);
    CHECK(kelvin2XYZ(6500.0f, xyz) == 1 && xyz[1] == 1.0f);
    if (failures) return 1;
    printf("public C API: all checks passed\n");
    return 0;
}
