# One record against protobuf's generated code for the same record.
include(${CMAKE_CURRENT_SOURCE_DIR}/protobuf_anchor.cmake)
kx_link_protobuf_anchor(${_name})
