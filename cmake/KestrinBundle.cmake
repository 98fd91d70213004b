# The agent finds itself through its bundle: Kestrin.app/Contents/{MacOS,Resources,Info.plist}.
set(KESTRIN_BUNDLE_DIR "${CMAKE_BINARY_DIR}/Kestrin.app")
set(KESTRIN_BUNDLE_EXE_DIR "${KESTRIN_BUNDLE_DIR}/Contents/MacOS")
file(MAKE_DIRECTORY "${KESTRIN_BUNDLE_EXE_DIR}" "${KESTRIN_BUNDLE_DIR}/Contents/Resources")
configure_file("${CMAKE_SOURCE_DIR}/resources/Info.plist.in"
               "${KESTRIN_BUNDLE_DIR}/Contents/Info.plist" @ONLY)
# Status-item images, the service icons and the icon of applications that bring none.
file(GLOB KESTRIN_BUNDLE_IMAGES CONFIGURE_DEPENDS "${CMAKE_SOURCE_DIR}/resources/images/*.png")
foreach(image IN LISTS KESTRIN_BUNDLE_IMAGES)
  get_filename_component(name "${image}" NAME)
  configure_file("${image}" "${KESTRIN_BUNDLE_DIR}/Contents/Resources/${name}" COPYONLY)
endforeach()
