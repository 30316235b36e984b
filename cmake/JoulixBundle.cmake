# joulix_add_bundle(NAME source...): a logger plug-in bundle "<NAME>.bundle", a
# shared object exporting JXPrincipalClass and linking the platform library that
# the daemon has loaded already.
set(JOULIX_BUNDLE_OUTPUT_DIR ${PROJECT_BINARY_DIR}/bundles)
# The daemon loads bundles from System/Library/JoulixPlugins under its root: with
# the prefix /usr (root "/"), that is ../System/Library/JoulixPlugins from the
# prefix. Relative, so that `cmake --install --prefix <root>/usr` keeps the layout.
set(JOULIX_PLUGIN_INSTALL_DIR "../System/Library/JoulixPlugins" CACHE STRING
  "Where shipped logger bundles are installed, relative to the prefix")
function(joulix_add_bundle name)
  add_library(${name} MODULE ${ARGN})
  target_link_libraries(${name} PRIVATE JXPlatform joulix_options)
  set_target_properties(${name} PROPERTIES PREFIX "" SUFFIX ".bundle" OUTPUT_NAME ${name}
                        CXX_VISIBILITY_PRESET hidden LIBRARY_OUTPUT_DIRECTORY ${JOULIX_BUNDLE_OUTPUT_DIR})
endfunction()
