// A second process for the preference store's tests. Commands:
//   read <domain> <key>           synchronises, prints the value's description
//   write <domain> <key> <text>   stores a string, synchronises; prints
//                                 "written" (exit 0) or "failed" (exit 1)
//   churn <domain> <bytes>        rewrites the key "record" forever with
//                                 {version = n, blob = <bytes> bytes of n % 256},
//                                 n counting on from the stored version;
//                                 prints "writing" after the first write
//   identity                      prints the bundle identifier and the
//                                 process name, one per line
//   directory service|notify|library
//                                 prints that directory, or "error: <reason>"
//                                 (exit 1)
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/prefs/preferences.h"
#include "platform/process/process_info.h"

namespace {

int Usage() {
  std::fprintf(stderr, "usage: preferences_helper read|write|churn|identity ...\n");
  return 2;
}

int Churn(const char* domain, size_t bytes) {
  int64_t version = 0;
  const kx::Value stored = kx::PreferenceStore::CopyValue("record", domain);
  if (const kx::Number* n = stored["version"].number()) version = n->int64Value();
  for (bool first = true;; first = false) {
    ++version;
    kx::Value::Bytes blob(bytes, static_cast<uint8_t>(version % 256));
    kx::PreferenceStore::SetValue(
        "record", kx::Value(kx::MakeDictionary({{"version", version}, {"blob", std::move(blob)}})),
        domain);
    if (first) {
      std::printf("writing\n");
      std::fflush(stdout);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return Usage();
  const std::string command = argv[1];
  if (command == "read" && argc == 4) {
    kx::PreferenceStore::Synchronize(argv[2]);
    std::printf("%s\n", kx::PreferenceStore::CopyValue(argv[3], argv[2]).description().c_str());
    return 0;
  }
  if (command == "write" && argc == 5) {
    kx::PreferenceStore::SetValue(argv[3], kx::Value(argv[4]), argv[2]);
    const bool ok = kx::PreferenceStore::Synchronize(argv[2]);
    std::printf("%s\n", ok ? "written" : "failed");
    return ok ? 0 : 1;
  }
  if (command == "churn" && argc == 4) return Churn(argv[2], std::strtoull(argv[3], nullptr, 10));
  if (command == "identity" && argc == 2) {
    std::printf("%s\n%s\n", kx::BundleIdentifier().c_str(), kx::ProcessName().c_str());
    return 0;
  }
  if (command == "directory" && argc == 3) {
    const std::string which = argv[2];
    try {
      const std::string path = which == "service"   ? kx::ServiceDirectory()
                               : which == "notify"  ? kx::NotifyDirectory()
                               : which == "library" ? kx::UserLibraryDirectory()
                                                    : std::string();
      if (path.empty()) return Usage();
      std::printf("%s\n", path.c_str());
      return 0;
    } catch (const kx::DirectoryError& e) {
      std::printf("error: %s\n", e.reason().c_str());
      return 1;
    }
  }
  return Usage();
}
