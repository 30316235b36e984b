# joulix_add_bundle(NAME source...): a logger plug-in bundle "<NAME>.bundle", a
# shared object exporting JXPrincipalClass and linking the platform library that
# the daemon has loaded already.
set(JOULIX_BUNDLE_OUTPUT_DIR ${PROJECT_BINARY_DIR}/bundles)
function(joulix_add_bundle name)
  add_library(${name} MODULE ${ARGN})
  target_link_libraries(${name} PRIVATE JXPlatform joulix_options)
  set_target_properties(${name} PROPERTIES PREFIX "" SUFFIX ".bundle" OUTPUT_NAME ${name}
                        CXX_VISIBILITY_PRESET hidden LIBRARY_OUTPUT_DIRECTORY ${JOULIX_BUNDLE_OUTPUT_DIR})
endfunction()
