# The reference service engine, built for the embedded transport backend (and a
# daemon later). Included from transport/CMakeLists.txt, which is processed
# before this folder.
include_guard(GLOBAL)

# The util/ and schemas/ code the engine writes its documents with, compiled a
# second time so the engine does not link libAvQvlCppBinding.so (which links the
# transport library: that would be a cycle). Hidden visibility; the transport's
# version script localises whatever AVQVL_EXPORT still marks.
add_library(AvQvlServiceUtil OBJECT
    ${PROJECT_SOURCE_DIR}/util/XmlStream.cpp
    ${PROJECT_SOURCE_DIR}/util/XmlText.cpp
    ${PROJECT_SOURCE_DIR}/util/BaseObject.cpp
    ${PROJECT_SOURCE_DIR}/util/XMLNode.cpp
    ${PROJECT_SOURCE_DIR}/schemas/SharedClientIDs.cpp)
target_include_directories(AvQvlServiceUtil PUBLIC ${PROJECT_SOURCE_DIR})
target_compile_definitions(AvQvlServiceUtil PUBLIC AVQVL_STATIC)
set_target_properties(AvQvlServiceUtil PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)

add_library(QuorvelService STATIC ${PROJECT_SOURCE_DIR}/service/ServiceEngine.cpp)
target_include_directories(QuorvelService PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(QuorvelService PRIVATE AvQvlServiceUtil)
set_target_properties(QuorvelService PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON)
