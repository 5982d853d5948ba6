# Test media, generated with GStreamer at build time and kept in the build tree; no media file is
# stored in the repository. Every clip is 3 s long; the video clips are 320x240 at 30 fps with a
# scrolling colour-bar pattern, so that no two frames are the same.
#
#   clip.webm   VP8 + Vorbis in WebM
#   clip.mp4    H.264 (constrained baseline) + AAC in MP4, index at the front
#   clip.ts     H.264 + AAC in MPEG-TS
#   audio.webm  Vorbis only, in WebM
#
# zvr_add_test_media() defines the target zvr_test_media and sets ZVR_TEST_MEDIA_DIR.

function(zvr_add_test_media)
  find_program(ZVR_GST_LAUNCH gst-launch-1.0 REQUIRED)
  set(dir ${CMAKE_BINARY_DIR}/media)
  set(video "videotestsrc num-buffers=90 pattern=smpte horizontal-speed=4 ! video/x-raw,width=320,height=240,framerate=30/1")
  # 130 buffers of 1024 samples at 44.1 kHz: a little over 3 s, as long as the video.
  set(audio "audiotestsrc num-buffers=130 ! audio/x-raw,rate=44100 ! audioconvert")
  set(h264 "x264enc speed-preset=ultrafast key-int-max=30 ! video/x-h264,profile=constrained-baseline ! h264parse")
  set(aac "avenc_aac ! aacparse")
  set(recipes
    "clip.webm|${video} ! vp8enc deadline=1 ! webmmux name=mux ! filesink location=@OUT@ ${audio} ! vorbisenc ! mux."
    "clip.mp4|${video} ! ${h264} ! mp4mux name=mux faststart=true ! filesink location=@OUT@ ${audio} ! ${aac} ! mux."
    "clip.ts|${video} ! ${h264} ! mpegtsmux name=mux ! filesink location=@OUT@ ${audio} ! ${aac} ! mux."
    "audio.webm|${audio} ! vorbisenc ! webmmux ! filesink location=@OUT@")
  set(outputs)
  foreach(recipe IN LISTS recipes)
    string(FIND "${recipe}" "|" bar)
    string(SUBSTRING "${recipe}" 0 ${bar} name)
    math(EXPR start "${bar} + 1")
    string(SUBSTRING "${recipe}" ${start} -1 pipeline)
    string(REPLACE "@OUT@" "${dir}/${name}.part" pipeline "${pipeline}")
    separate_arguments(pipeline UNIX_COMMAND "${pipeline}")
    # Written under a temporary name and renamed, so that an interrupted build leaves no
    # truncated clip behind that a later build would take as finished.
    add_custom_command(OUTPUT ${dir}/${name}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${dir}
      COMMAND ${ZVR_GST_LAUNCH} -q -e ${pipeline}
      COMMAND ${CMAKE_COMMAND} -E rename ${dir}/${name}.part ${dir}/${name}
      COMMENT "Generating test media ${name}"
      VERBATIM)
    list(APPEND outputs ${dir}/${name})
  endforeach()
  add_custom_target(zvr_test_media ALL DEPENDS ${outputs})
  set(ZVR_TEST_MEDIA_DIR ${dir} PARENT_SCOPE)
endfunction()
