# The tests that run pipelines of several processes with gst-launch-1.0.

# Debian's interpreter, as for the other test scripts.
find_program(QEV_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH REQUIRED)

add_library(gstbufferlog MODULE BufferLog.cpp)
qev_settings(gstbufferlog)
target_link_libraries(gstbufferlog PRIVATE PkgConfig::gstreamer-base)

set(plugin_path $<TARGET_FILE_DIR:gstqev>:$<TARGET_FILE_DIR:gstbufferlog>)

# qev_gst_script_test(name script [argument...]): exit status 77 skips the test.
function(qev_gst_script_test name script)
    add_test(NAME GStreamer.${name} COMMAND ${QEV_PYTHON} -B ${CMAKE_CURRENT_SOURCE_DIR}/${script}
                                            ${ARGN})
    # A registry of plugins can be written by one test at a time only.
    set(environment GST_PLUGIN_PATH=${plugin_path}
                    GST_REGISTRY=${CMAKE_CURRENT_BINARY_DIR}/${name}.registry)
    if(QEV_SANITIZERS)
        list(APPEND environment QEV_SANITIZERS=${QEV_SANITIZERS})
    endif()
    set_tests_properties(
        GStreamer.${name} PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77 ENVIRONMENT "${environment}")
endfunction()

qev_gst_script_test(EncodedVideoComesOutAsItWentIn test_streams.py EncodedVideo)
qev_gst_script_test(EncodedAudioComesOutAsItWentIn test_streams.py EncodedAudio)
qev_gst_script_test(RawVideoComesOutAsItWentIn test_streams.py RawVideo)
qev_gst_script_test(ReadersComeAndGo test_interruptions.py Readers)
qev_gst_script_test(WritersComeAndGo test_interruptions.py Writers)
qev_gst_script_test(StagesDrawOnTheFrameItself test_in_place.py)
qev_gst_script_test(NoObjectOutlivesItsPipeline test_leaks.py Tracer)
qev_gst_script_test(ValgrindFindsNothing test_leaks.py Valgrind)
qev_gst_script_test(InspectionTellsEveryProperty test_inspection.py)

set(across_machines ${PROJECT_SOURCE_DIR}/docs/across-machines.md)
foreach(way Srt SrtOverNetem Rtp Tcp)
    qev_gst_script_test(RingsOfTwoMachinesAreJoinedBy${way} test_across_machines.py
                        ${across_machines} ${way})
endforeach()

if(TARGET qev-matroska)
    qev_gst_script_test(RecordingsBecomeFilmsAndComeBack test_matroska.py $<TARGET_FILE:qev>)
endif()
