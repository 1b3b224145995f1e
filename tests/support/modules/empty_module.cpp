// A loadable library that exports nothing of interest.
extern "C" int zx_empty_module();
extern "C" int zx_empty_module() {
  return 0;
}
