// An exit module whose start-up always refuses, for the manager's tests:
// loading "LIBXFAIL" must fail cleanly and leave no user counted.
#define XC_EXPORT extern "C" __attribute__((visibility("default")))

XC_EXPORT int libxfail_init(int*, void**) { return -1; }
XC_EXPORT void libxfail_term(void*) {}
XC_EXPORT int libxfail_open_hook(void*, const char*, const char*, int, double, int, const char*, int*, char*, int,
                                 int*, void**) {
    return -1;
}
XC_EXPORT int libxfail_close_hook(void*, int*, char*) { return 0; }
XC_EXPORT int libxfail_convert(void*, int, const char*, int, char*, int*) { return -1; }
XC_EXPORT int libxfail_unconvert(void*, int, const char*, int, char*, int*) { return -1; }
