// Under ThreadSanitizer: the reference server runs in this process on Debian's cpp-httplib,
// which is not built with TSan, so its worker threads' own synchronisation is invisible and
// their memcpy/memcmp calls show up as races that are not ours. Reports whose intercepted call
// comes from that library are dropped; everything in our code is still checked.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions() {
  return "called_from_lib:libcpp-httplib.so\n";
}
