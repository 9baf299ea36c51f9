# SPDX-License-Identifier: MIT
# vorta burn: test frames with a burnt-in time code, written as PNGs.
get_property(_has_burn GLOBAL PROPERTY VORTA_CLI_HAS_BURN)
if(NOT _has_burn)
  return()
endif()
set(_png ${CMAKE_CURRENT_BINARY_DIR}/burn)

vorta_cli_test(burn_help RC 0 ARGS burn --help STDOUT "^usage: vorta burn \\[options\\] --out FILE.*--pixel FORMAT")
# The separator of --tc is not read: the drop-frame format puts the
# semicolon in.
vorta_cli_test(burn_v210_hd RC 0
  ARGS burn --size 1920x1080 --pixel v210 --tc 01:00:00:00 --format 30df --mode timecode --out ${_png}_v210_hd.png
  STDOUT "_v210_hd.png: 1920x1080 v210, 01:00:00.00 \\(30df\\), 11 cells of 72x108 pixels from x 564, line 864\n$")
foreach(_pixel v210 ycbcr8 argb rgba rgb10)
  vorta_cli_test(burn_${_pixel}_sd RC 0
    ARGS burn --size 720x486 --pixel ${_pixel} --tc 12:34:56:23 --out ${_png}_${_pixel}_sd.png
    STDOUT "_${_pixel}_sd.png: 720x486 ${_pixel}, 12:34:56:23 \\(30\\), 11 cells of 24x36 pixels from x 228, line 388\n$")
endforeach()
vorta_cli_test(burn_uhd_rgb10 RC 0 ARGS burn --size 3840x2160 --pixel rgb10 --out ${_png}_uhd.png
  STDOUT "3840x2160 rgb10, 01:00:00:00 \\(30\\), 11 cells of 72x108 pixels from x 1524, line 1728\n$")
vorta_cli_test(burn_720p_v210 RC 0 ARGS burn --size 1280x720 --pixel v210 --vertical-percent 10 --out ${_png}_720p.png
  STDOUT "1280x720 v210, 01:00:00:00 \\(30\\), 11 cells of 48x72 pixels from x 372, line 72\n$")
vorta_cli_test(burn_userbits RC 0 ARGS burn --size 720x486 --mode userbits --user-bits "AB CD EF 19" --out ${_png}_ub.png
  STDOUT "user bits AB CD EF 19 \\(30\\)")
vorta_cli_test(burn_counter RC 0 ARGS burn --size 720x486 --mode counter --value -42 --out ${_png}_counter.png
  STDOUT "counter -42 \\(30\\)")
vorta_cli_test(burn_frame_count RC 0 ARGS burn --size 720x486 --mode counter --tc 01:00:00:00 --format 30df
  --out ${_png}_count.png STDOUT "frame count 107892 \\(30df\\)")
vorta_cli_test(burn_dashes RC 0 ARGS burn --size 720x486 --mode dashes --format 30df --out ${_png}_dashes.png
  STDOUT "dashes \\(30df\\)")
vorta_cli_test(burn_field_marker RC 0 ARGS burn --size 1280x720 --tc 12:00:00:45 --format 60 --field-marker
  --out ${_png}_marker.png STDOUT "12:00:00:45 drawn as 12:00:00:22 with field marker .\\*. \\(second field\\) \\(60\\), 12 cells of 48x72 pixels from x 348,")

vorta_cli_test(burn_no_out RC 2 ARGS burn --size 720x486 STDERR "^vorta burn: --out FILE is required; see 'vorta burn --help'\n$")
vorta_cli_test(burn_bad_pixel RC 2 ARGS burn --pixel yuv --out ${_png}_x.png
  STDERR "^vorta burn: --pixel must be one of v210, ycbcr8, argb, rgba, rgb10, not 'yuv'; see 'vorta burn --help'\n$")
vorta_cli_test(burn_bad_format RC 2 ARGS burn --format 29.97 --out ${_png}_x.png
  STDERR "^vorta burn: --format must be one of 24, 25, 30, 30df, 50, 60, 60df, not '29.97'; see 'vorta burn --help'\n$")
vorta_cli_test(burn_bad_mode RC 2 ARGS burn --mode clock --out ${_png}_x.png
  STDERR "^vorta burn: --mode must be one of timecode, userbits, counter, dashes, not 'clock'; see 'vorta burn --help'\n$")
vorta_cli_test(burn_bad_size RC 2 ARGS burn --size 1920 --out ${_png}_x.png
  STDERR "^vorta burn: --size must be WIDTHxHEIGHT, not '1920'; see 'vorta burn --help'\n$")
vorta_cli_test(burn_huge_size RC 2 ARGS burn --size 100000x1080 --out ${_png}_x.png
  STDERR "^vorta burn: the width of --size must be between 1 and 8192; see 'vorta burn --help'\n$")
vorta_cli_test(burn_bad_tc RC 2 ARGS burn --tc 1:2:3:4 --out ${_png}_x.png
  STDERR "^vorta burn: --tc must look like HH:MM:SS:FF, not '1:2:3:4'; see 'vorta burn --help'\n$")
vorta_cli_test(burn_bad_user_bits RC 2 ARGS burn --user-bits 12345 --out ${_png}_x.png
  STDERR "^vorta burn: --user-bits must be 8 hexadecimal digits, group 8 first, not '12345'; see 'vorta burn --help'\n$")
vorta_cli_test(burn_bad_percent RC 2 ARGS burn --vertical-percent 101 --out ${_png}_x.png
  STDERR "^vorta burn: --vertical-percent must be between 0 and 100; see 'vorta burn --help'\n$")
vorta_cli_test(burn_does_not_fit RC 1 ARGS burn --size 200x100 --out ${_png}_x.png
  STDERR "^vorta burn: the time code does not fit in a 200x100 frame\n$")
vorta_cli_test(burn_too_low RC 1 ARGS burn --size 1920x1080 --vertical-percent 95 --out ${_png}_x.png
  STDERR "^vorta burn: the time code does not fit in a 1920x1080 frame at 95 %\n$")
vorta_cli_test(burn_unwritable RC 1 ARGS burn --size 720x486 --out /nonexistent-dir/frame.png
  STDERR "^vorta burn: cannot write /nonexistent-dir/frame.png\n$")
