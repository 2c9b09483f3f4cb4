# The ring's sources, unchanged, compiled so that they report each access to memory.

find_package(PkgConfig REQUIRED)
pkg_check_modules(xxhash REQUIRED IMPORTED_TARGET libxxhash)

set(ring_directory ${PROJECT_SOURCE_DIR}/common/lib/SharedMemory/src)
set(ring_sources CopyPastCache.cpp SharedBuffer.cpp SharedBufferRead.cpp SharedBufferRefusals.cpp
                 SharedBufferWrite.cpp SharedPacketBuffer.cpp)

# qev_stepped_objects(target SOURCES...): objects that report their accesses.
function(qev_stepped_objects target)
    add_library(${target} OBJECT ${ARGN})
    # One by one, since a mutant takes the place of one.
    set_target_properties(${target} PROPERTIES UNITY_BUILD OFF)
    qev_settings(${target})
    target_compile_options(${target} PRIVATE -O1 -fsanitize=thread)
    target_link_libraries(${target} PRIVATE qev_SharedMemory_static)
endfunction()

# qev_stepped_program(target): copies of memory are reported, too.
function(qev_stepped_program target)
    target_link_libraries(${target} PRIVATE qev_SharedMemory_static PkgConfig::xxhash)
    target_link_options(${target} PRIVATE -Wl,--wrap=memmove,--wrap=memcpy)
endfunction()

list(TRANSFORM ring_sources PREPEND ${ring_directory}/ OUTPUT_VARIABLE ring_paths)
qev_stepped_objects(qev_stepped_ring ${ring_paths})

add_library(qev_stepped_chain OBJECT Interleavings.cpp SteppedAccess.cpp SteppedChain.cpp
                                     SteppedChainChecks.cpp)
qev_settings(qev_stepped_chain)
target_compile_options(qev_stepped_chain PRIVATE -O2)  # a search is nothing but work
target_link_libraries(qev_stepped_chain PRIVATE qev_SharedMemory_static PkgConfig::xxhash)

qev_test(
    qev_interleaving_tests
    TIMEOUT 7200  # of the long form
    SOURCES InterleavingsTest.cpp SteppedChainTest.cpp $<TARGET_OBJECTS:qev_stepped_chain>
            $<TARGET_OBJECTS:qev_stepped_ring>
    LIBRARIES qev_SharedMemory_static)
qev_stepped_program(qev_interleaving_tests)

add_library(qev_mutant_main OBJECT MutantMain.cpp)
qev_settings(qev_mutant_main)
target_link_libraries(qev_mutant_main PRIVATE qev_SharedMemory_static)

# qev_ring_mutant(name source failure): the ring with a fault in one source, and a test that the
# search finds it.
function(qev_ring_mutant name source failure)
    set(directory ${CMAKE_CURRENT_BINARY_DIR}/mutants/${name})
    set(mutated ${directory}/${source})
    file(MAKE_DIRECTORY ${directory})
    add_custom_command(
        OUTPUT ${mutated}
        COMMAND Python3::Interpreter ${CMAKE_CURRENT_SOURCE_DIR}/seed_fault.py ${name}
                ${ring_directory}/${source} ${mutated}
        DEPENDS seed_fault.py ${ring_directory}/${source}
        VERBATIM)
    if(source MATCHES "\\.h$")
        # All who include it have to be compiled beside it.
        foreach(file SharedBuffer.h ${ring_sources})
            configure_file(${ring_directory}/${file} ${directory}/${file} COPYONLY)
        endforeach()
        list(TRANSFORM ring_sources PREPEND ${directory}/ OUTPUT_VARIABLE compiled)
        set_source_files_properties(${compiled} PROPERTIES OBJECT_DEPENDS ${mutated})
        set(others)
    else()
        set(compiled ${mutated})
        set(others $<FILTER:$<TARGET_OBJECTS:qev_stepped_ring>,EXCLUDE,/${source}\\.o$>)
    endif()
    qev_stepped_objects(qev_mutant_${name}_ring ${compiled})
    add_executable(
        qev_mutant_${name} $<TARGET_OBJECTS:qev_mutant_main> $<TARGET_OBJECTS:qev_stepped_chain>
                           $<TARGET_OBJECTS:qev_mutant_${name}_ring> ${others})
    set_target_properties(qev_mutant_${name} PROPERTIES LINKER_LANGUAGE CXX)
    qev_settings(qev_mutant_${name})
    qev_stepped_program(qev_mutant_${name})
    add_test(NAME RingMutant.${name} COMMAND qev_mutant_${name} ${failure})
    set_tests_properties(RingMutant.${name} PROPERTIES TIMEOUT 300)
endfunction()

if(Python3_FOUND)
    qev_ring_mutant(HandOnBeforeCopy SharedBufferWrite.cpp "a payload is not what was written")
    qev_ring_mutant(ReleaseBeforeRead SharedPacketBuffer.cpp "a payload is not what was written")
    qev_ring_mutant(SubtractNotAtomic SharedBufferAccounting.h "bytes are not conserved")
    qev_ring_mutant(AddNotAtomic SharedBufferAccounting.h "bytes are not conserved")
    qev_ring_mutant(AddRelaxed SharedBufferAccounting.h
                    "an access is not sequentially consistent")
    qev_ring_mutant(HeaderRoomDropped SharedBufferWrite.cpp "a write reports 1")
    qev_ring_mutant(SpaceNotChecked SharedBufferWrite.cpp "a packet is overwritten")
    qev_ring_mutant(CountedAfterHandOn SharedBufferWrite.cpp "a release reports 1")
endif()
