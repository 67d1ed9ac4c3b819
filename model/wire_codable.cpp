#include "kx/WireCodable.h"

std::vector<uint8_t> WireCodable::data() const {
  WireWriter writer;
  writeTo(writer);
  return writer.copyData();
}

bool WireCodable::initWithData(std::span<const uint8_t> bytes) {
  WireReader reader(bytes);
  return readFrom(reader);
}
