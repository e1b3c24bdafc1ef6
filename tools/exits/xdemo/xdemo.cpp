// An example of a site's own compression exit, loaded by name "LIBXDEMO"
// from $VRTA_LIBRARY_PATH/libxdemo.so. Rows of slowly changing numbers
// compress well as byte deltas; runs of unchanged bytes become a zero byte
// and a count.
//
// Coded block: a non-zero byte is the next delta; 0x00 n stands for n (1..255)
// zero deltas. The first byte's delta is taken from 0.
#include <cstring>

#define XC_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

constexpr int XC_COMPRESS = 4;

int encode(const unsigned char* in, int n, unsigned char* out, int room) {
    int o = 0;
    unsigned char prev = 0;
    for (int i = 0; i < n;) {
        const unsigned char d = static_cast<unsigned char>(in[i] - prev);
        if (d != 0) {
            if (o >= room) return -1;
            out[o++] = d;
            prev = in[i++];
            continue;
        }
        int run = 0;
        while (i < n && run < 255 && in[i] == prev) ++i, ++run;
        if (room - o < 2) return -1;
        out[o++] = 0;
        out[o++] = static_cast<unsigned char>(run);
    }
    return o;
}

int decode(const unsigned char* in, int n, unsigned char* out, int room) {
    int o = 0;
    unsigned char prev = 0;
    for (int i = 0; i < n;) {
        if (in[i] != 0) {
            if (o >= room) return -1;
            prev = static_cast<unsigned char>(prev + in[i++]);
            out[o++] = prev;
            continue;
        }
        if (i + 1 >= n || in[i + 1] == 0) return -1;  // cut or empty run
        const int run = in[i + 1];
        i += 2;
        if (room - o < run) return -1;
        std::memset(out + o, prev, static_cast<size_t>(run));
        o += run;
    }
    return o;
}

}  // namespace

XC_EXPORT int libxdemo_init(int* xcflags, void** xchdl) {
    *xcflags = XC_COMPRESS;
    *xchdl = nullptr;
    return 0;
}

XC_EXPORT void libxdemo_term(void*) {}

XC_EXPORT int libxdemo_open_hook(void*, const char*, const char*, int, double, int, const char*, int*, char*,
                                 int rawmaxbuf, int* iomaxbuf, void** xcthdl) {
    *iomaxbuf = rawmaxbuf;
    *xcthdl = nullptr;
    return 0;
}

XC_EXPORT int libxdemo_close_hook(void*, int*, char*) { return 0; }

XC_EXPORT int libxdemo_convert(void*, int, const char* rawbuf, int rawlen, char* iobuf, int* iolen) {
    const int room = rawlen < *iolen ? rawlen : *iolen;
    const int n = encode(reinterpret_cast<const unsigned char*>(rawbuf), rawlen,
                         reinterpret_cast<unsigned char*>(iobuf), room);
    if (n < 0 || n >= rawlen) return 1;  // no gain: store the block raw
    *iolen = n;
    return 0;
}

XC_EXPORT int libxdemo_unconvert(void*, int, const char* iobuf, int iolen, char* rawbuf, int* rawlen) {
    const int n = decode(reinterpret_cast<const unsigned char*>(iobuf), iolen,
                         reinterpret_cast<unsigned char*>(rawbuf), *rawlen);
    if (n < 0) return -1;
    *rawlen = n;
    return 0;
}
