// A faulty exit module for the tests: it claims every block converts to no
// bytes at all, which the manager must refuse rather than store.
#define XC_EXPORT extern "C" __attribute__((visibility("default")))

XC_EXPORT int libxzero_init(int* xcflags, void** xchdl) {
    *xcflags = 4;
    *xchdl = nullptr;
    return 0;
}
XC_EXPORT void libxzero_term(void*) {}
XC_EXPORT int libxzero_open_hook(void*, const char*, const char*, int, double, int, const char*, int*, char*,
                                 int rawmaxbuf, int* iomaxbuf, void** xcthdl) {
    *iomaxbuf = rawmaxbuf;
    *xcthdl = nullptr;
    return 0;
}
XC_EXPORT int libxzero_close_hook(void*, int*, char*) { return 0; }
XC_EXPORT int libxzero_convert(void*, int, const char*, int, char*, int* iolen) {
    *iolen = 0;
    return 0;
}
XC_EXPORT int libxzero_unconvert(void*, int, const char*, int, char*, int* rawlen) {
    *rawlen = 0;
    return 0;
}
