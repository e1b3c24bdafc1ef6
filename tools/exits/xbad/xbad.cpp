// A broken exit module for the manager's tests: it lacks its unconvert entry,
// so loading it as "LIBXBAD" must fail cleanly.
#define XC_EXPORT extern "C" __attribute__((visibility("default")))

XC_EXPORT int libxbad_init(int* xcflags, void** xchdl) {
    *xcflags = 4;
    *xchdl = nullptr;
    return 0;
}
XC_EXPORT void libxbad_term(void*) {}
XC_EXPORT int libxbad_open_hook(void*, const char*, const char*, int, double, int, const char*, int*, char*,
                                int rawmaxbuf, int* iomaxbuf, void** xcthdl) {
    *iomaxbuf = rawmaxbuf;
    *xcthdl = nullptr;
    return 0;
}
XC_EXPORT int libxbad_close_hook(void*, int*, char*) { return 0; }
XC_EXPORT int libxbad_convert(void*, int, const char*, int, char*, int*) { return 1; }
