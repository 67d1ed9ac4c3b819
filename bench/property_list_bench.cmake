# Our property-list codec against libplist on the same bytes.
target_link_libraries(${_name} PRIVATE PkgConfig::PLIST)
