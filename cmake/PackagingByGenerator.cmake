# Read by CPack once it knows what it makes.
if(CPACK_GENERATOR STREQUAL "DEB")
  # The components' descriptions begin with their own summaries; this one would be put
  # in front of both.
  set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
elseif(CPACK_GENERATOR STREQUAL "RPM")
  # What the authority needs is told in Debian's names: only Debian has it as a package.
  set(CPACK_COMPONENTS_ALL tzregister)
endif()
