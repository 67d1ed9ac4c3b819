# Measured against protobuf's generated code for the same record, declared in
# bench/result_stream.proto (shared with the stream benchmark). Protobuf is
# linked into this benchmark only.
find_package(Protobuf REQUIRED)
set(_proto ${CMAKE_CURRENT_SOURCE_DIR}/result_stream.proto)
set(_gen ${CMAKE_CURRENT_BINARY_DIR}/result_bench_proto)
add_custom_command(
  OUTPUT ${_gen}/result_stream.pb.cc ${_gen}/result_stream.pb.h
  COMMAND ${CMAKE_COMMAND} -E make_directory ${_gen}
  COMMAND protobuf::protoc --cpp_out=${_gen} -I ${CMAKE_CURRENT_SOURCE_DIR} ${_proto}
  DEPENDS ${_proto} protobuf::protoc
  COMMENT "protoc result_stream.proto (result_bench)"
  VERBATIM)
target_sources(${_name} PRIVATE ${_gen}/result_stream.pb.cc)
target_include_directories(${_name} PRIVATE ${_gen})
target_link_libraries(${_name} PRIVATE protobuf::libprotobuf)
