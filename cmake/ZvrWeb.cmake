# Real browsers driven over W3C WebDriver: WPE WebKit (cog on its headless platform, through
# WPEWebDriver) and Chromium (through chromedriver), all from Debian packages.
#
# zvr_add_web_driver() finds the browsers and their drivers and, when all four are there,
# defines
#   zvr_browser_keeper  the program that holds a driver in a process group of its own and reaps
#                       every process of its browser
#   zvr_web_driver      the WebDriver client and the browser runner (tests/web)
# and sets ZVR_WEB_AVAILABLE in the caller's scope.

function(zvr_add_web_driver)
  if(TARGET zvr_web_driver)
    set(ZVR_WEB_AVAILABLE ON PARENT_SCOPE)
    return()
  endif()
  find_program(ZVR_COG cog)
  find_program(ZVR_WPE_DRIVER WPEWebDriver)
  find_program(ZVR_CHROMIUM chromium)
  find_program(ZVR_CHROMEDRIVER chromedriver)
  if(NOT ZVR_COG OR NOT ZVR_WPE_DRIVER OR NOT ZVR_CHROMIUM OR NOT ZVR_CHROMEDRIVER)
    message(STATUS "web engines: cog, WPEWebDriver, chromium or chromedriver missing; "
                   "no web tests (scripts/bootstrap installs them)")
    set(ZVR_WEB_AVAILABLE OFF PARENT_SCOPE)
    return()
  endif()
  set(dir ${PROJECT_SOURCE_DIR}/tests/web)

  add_executable(zvr_browser_keeper ${dir}/browser_keeper.cpp)
  zvr_enable_warnings(zvr_browser_keeper)

  add_library(zvr_web_driver STATIC ${dir}/webdriver.cpp ${dir}/browser_runner.cpp)
  target_include_directories(zvr_web_driver PUBLIC ${dir})
  target_link_libraries(zvr_web_driver PUBLIC JsonCpp::JsonCpp PkgConfig::CppHttplib Threads::Threads)
  target_compile_definitions(zvr_web_driver PRIVATE
    ZVR_BROWSER_KEEPER_PATH="$<TARGET_FILE:zvr_browser_keeper>"
    ZVR_COG_PATH="${ZVR_COG}"
    ZVR_WPE_DRIVER_PATH="${ZVR_WPE_DRIVER}"
    ZVR_CHROMIUM_PATH="${ZVR_CHROMIUM}"
    ZVR_CHROMEDRIVER_PATH="${ZVR_CHROMEDRIVER}")
  add_dependencies(zvr_web_driver zvr_browser_keeper)
  zvr_enable_warnings(zvr_web_driver)
  set(ZVR_WEB_AVAILABLE ON PARENT_SCOPE)
endfunction()
