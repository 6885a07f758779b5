# One place for the language, the warnings and the sanitizers; every target links corvane_flags.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)

find_program(CORVANE_CCACHE ccache)
if(CORVANE_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CORVANE_CCACHE})
endif()

find_package(Threads REQUIRED)

add_library(corvane_flags INTERFACE)
target_compile_options(corvane_flags INTERFACE -Wall -Wextra -Wpedantic -Wnon-virtual-dtor -Woverloaded-virtual -Wshadow)
if(CORVANE_WERROR)
    target_compile_options(corvane_flags INTERFACE -Werror)
endif()
target_compile_definitions(corvane_flags INTERFACE
    QT_NO_KEYWORDS QT_NO_CAST_TO_ASCII QT_NO_URL_CAST_FROM_STRING QT_USE_QSTRINGBUILDER
    _FILE_OFFSET_BITS=64)
target_link_libraries(corvane_flags INTERFACE Threads::Threads)
if(CORVANE_SANITIZE)
    # The sanitizers' own code makes GCC see uninitialised values where there are none.
    target_compile_options(corvane_flags INTERFACE -fsanitize=${CORVANE_SANITIZE} -fno-omit-frame-pointer -O1
        $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized> $<$<BOOL:${CORVANE_FUZZ}>:-fsanitize=fuzzer-no-link>)
    target_link_options(corvane_flags INTERFACE -fsanitize=${CORVANE_SANITIZE})
endif()

# What turns a fault into an end instead of a takeover: Debian's hardening=+all, and the checks of the standard
# library. For what people run; the sanitizers look closer, and a debug build has to be quick to make.
set(CORVANE_HARDENING_COMPILE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2 -fstack-protector-strong
    -fstack-clash-protection -Wformat -Werror=format-security
    -Wno-unused-result) # of calls that fortify marks, of which a cast to void says enough; a debug build looks
set(CORVANE_HARDENING_LINK -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
    list(APPEND CORVANE_HARDENING_COMPILE -fcf-protection)
elseif(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    list(APPEND CORVANE_HARDENING_COMPILE -mbranch-protection=standard)
endif()
if(NOT CORVANE_SANITIZE)
    target_compile_options(corvane_flags INTERFACE "$<$<CONFIG:Release>:${CORVANE_HARDENING_COMPILE}>")
    target_compile_definitions(corvane_flags INTERFACE $<$<CONFIG:Release>:_GLIBCXX_ASSERTIONS>)
    target_link_options(corvane_flags INTERFACE "$<$<CONFIG:Release>:${CORVANE_HARDENING_LINK}>"
        $<$<AND:$<CONFIG:Release>,$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>>:-pie>)
endif()

# corvane_room(name SOURCES … PUBLIC … PRIVATE …): one static library a room (or part of one).
# Rooms include each other as "room/File.h", so the include root is src/.
function(corvane_room name)
    cmake_parse_arguments(ROOM "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
    add_library(${name} STATIC ${ROOM_SOURCES})
    target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(${name} PUBLIC Qt6::Core ${ROOM_PUBLIC} PRIVATE corvane_flags ${ROOM_PRIVATE})
endfunction()

# corvane_test(name SOURCES … LIBS … [TIMEOUT s] [SLOW] [BUS]): one QtTest program, run without a display.
# SLOW tests run only where ./test --slow asks for them. BUS gives it a session bus of its own, on which nobody
# is and which starts nobody.
function(corvane_test name)
    cmake_parse_arguments(T "SLOW;BUS" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${T_SOURCES})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/tests)
    target_link_libraries(${name} PRIVATE Qt6::Test corvane_flags ${T_LIBS})
    if(T_BUS)
        add_test(NAME ${name} COMMAND dbus-run-session
            --config-file=${PROJECT_SOURCE_DIR}/tests/support/session-bus.conf -- $<TARGET_FILE:${name}>)
    else()
        add_test(NAME ${name} COMMAND ${name})
    endif()
    if(NOT T_TIMEOUT)
        set(T_TIMEOUT 120)
    endif()
    if(CORVANE_SANITIZE)
        math(EXPR T_TIMEOUT "${T_TIMEOUT} * 5") # what the sanitizers watch takes its time
    endif()
    set_tests_properties(${name} PROPERTIES TIMEOUT ${T_TIMEOUT}
        ENVIRONMENT "QT_QPA_PLATFORM=offscreen;LC_ALL=C.UTF-8;TZ=UTC")
    if(T_SLOW)
        set_tests_properties(${name} PROPERTIES LABELS slow)
    endif()
endfunction()
