# Links a benchmark against protobuf's generated code for the records in
# bench/result_stream.proto, the anchor the wire format is measured against.
# Protobuf is linked into benchmarks only, never into the library.
find_package(Protobuf REQUIRED)
function(kx_link_protobuf_anchor target)
  set(_proto ${CMAKE_CURRENT_SOURCE_DIR}/result_stream.proto)
  set(_gen ${CMAKE_CURRENT_BINARY_DIR}/${target}_proto)
  add_custom_command(
    OUTPUT ${_gen}/result_stream.pb.cc ${_gen}/result_stream.pb.h
    COMMAND ${CMAKE_COMMAND} -E make_directory ${_gen}
    COMMAND protobuf::protoc --cpp_out=${_gen} -I ${CMAKE_CURRENT_SOURCE_DIR} ${_proto}
    DEPENDS ${_proto} protobuf::protoc
    COMMENT "protoc result_stream.proto (${target})"
    VERBATIM)
  target_sources(${target} PRIVATE ${_gen}/result_stream.pb.cc)
  target_include_directories(${target} PRIVATE ${_gen})
  target_link_libraries(${target} PRIVATE protobuf::libprotobuf)
endfunction()
