# The target coverage-figures: builds everything, runs the tests and prints what they reach.

function(qev_targets_below directory result)
    get_property(targets DIRECTORY ${directory} PROPERTY BUILDSYSTEM_TARGETS)
    get_property(children DIRECTORY ${directory} PROPERTY SUBDIRECTORIES)
    foreach(child IN LISTS children)
        qev_targets_below(${child} below)
        list(APPEND targets ${below})
    endforeach()
    set(${result} ${targets} PARENT_SCOPE)
endfunction()

qev_targets_below(${PROJECT_SOURCE_DIR} targets)
add_custom_target(
    coverage-figures
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/coverage-figures ${PROJECT_BINARY_DIR}
    USES_TERMINAL)
add_dependencies(coverage-figures ${targets})
