#include "platform/process/device_kind.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "platform/strings/text_lines.h"

namespace kx {
namespace {

// Removes one level of shell quoting: 'single' is literal, "double" honours
// backslash escapes, bare words honour backslash escapes too.
std::string Unquote(std::string_view value) {
  std::string out;
  out.reserve(value.size());
  char quote = 0;
  for (size_t i = 0; i < value.size(); ++i) {
    const char c = value[i];
    if (quote == '\'') {
      if (c == '\'') quote = 0; else out += c;
    } else if (c == '\\' && i + 1 < value.size()) {
      out += value[++i];
    } else if (quote == '"') {
      if (c == '"') quote = 0; else out += c;
    } else if (c == '\'' || c == '"') {
      quote = c;
    } else {
      out += c;
    }
  }
  return out;
}

std::string ReadFile(const char* path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return {};
  std::ostringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

// The chassis from the device tree, which names it the way systemd does;
// the property ends in a NUL.
std::string DeviceTreeChassis() {
  std::string value = ReadFile("/proc/device-tree/chassis-type");
  while (!value.empty() && (value.back() == '\0' || value.back() == '\n')) value.pop_back();
  return value;
}

// SMBIOS chassis type 30 is "Tablet"; no DMI type stands for a handset.
DeviceKind DmiDeviceKind() {
  const std::string type(TrimBlanks(ReadFile("/sys/class/dmi/id/chassis_type")));
  return type == "30" ? DeviceKind::Tablet : DeviceKind::Other;
}

DeviceKind MachineDeviceKind() {
  std::string chassis = ChassisFromMachineInfo(ReadFile("/etc/machine-info"));
  if (chassis.empty()) chassis = DeviceTreeChassis();
  if (!chassis.empty()) return DeviceKindForChassis(chassis);
  return DmiDeviceKind();
}

}  // namespace

DeviceKind DeviceKindForChassis(std::string_view chassis) {
  if (chassis == "tablet") return DeviceKind::Tablet;
  if (chassis == "handset" || chassis == "phone") return DeviceKind::Phone;
  return DeviceKind::Other;
}

std::string ChassisFromMachineInfo(std::string_view contents) {
  std::string chassis;
  ForEachTrimmedLine(contents, [&](std::string_view line) {
    if (line.empty() || line.front() == '#' || line.front() == ';') return;
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || TrimBlanks(line.substr(0, equals)) != "CHASSIS") return;
    // A later assignment wins, as it would when the file is sourced.
    chassis = Unquote(TrimBlanks(line.substr(equals + 1)));
  });
  return chassis;
}

DeviceKind CurrentDeviceKind() {
  if (const char* override = std::getenv("KX_DEVICE_KIND"); override && *override)
    return DeviceKindForChassis(override);
  static const DeviceKind machine = MachineDeviceKind();
  return machine;
}

}  // namespace kx
