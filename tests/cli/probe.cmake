# SPDX-License-Identifier: MIT
# vorta probe on the committed QuickTime clips.
set(_qt ${VORTA_TEST_DATA_DIR}/qt)
vorta_cli_test(probe_interlaced RC 0 ARGS probe --wide ${_qt}/hd1080_tff_2997.mov
  STDOUT "^FILE +CODEC +SIZE +RATE +SCAN +FRAMES +AUDIO +START TC +FORMAT +ENCODE +REFUSED\n[^\n]*hd1080_tff_2997.mov +apco +1920x1080 +29.97 +top-first +2 +0 +00:00:00:00 +1920x1080i29.97 +3\n$")
vorta_cli_test(probe_audio_and_timecode RC 0 ARGS probe --wide ${_qt}/audio_8x1.mov ${_qt}/UPPER_CASE.MOV
  STDOUT "audio_8x1.mov +apcs +64x36 +29.97 +progressive +3 +8 +01:00:00;00 +64x36p29.97 +2 *\n[^\n]*UPPER_CASE.MOV +apco +64x36 +25 +progressive +3 +0 +00:00:00:00 +64x36p25 +3")
vorta_cli_test(probe_psf RC 0 ARGS probe --wide ${_qt}/hd1080_psf_23976.mov
  STDOUT "apco +1920x1080 +23.976 +top-first +2 +0 +00:00:00:00 +1920x1080psf23.98 +3")
vorta_cli_test(probe_refused_codec RC 1 ARGS probe --wide ${_qt}/dnxhd_720p23976.mov
  STDOUT "AVdn +1280x720 +23.976 +progressive +1 +codec 'AVdn' is not one the recorder plays\n$")
vorta_cli_test(probe_refused_files RC 1 ARGS probe --wide ${_qt}/bad/text.mov clip.mp4 ${_qt}/absent.mov
  STDOUT "^FILE .* REFUSED\n[^\n]*text.mov +not a readable QuickTime movie with a video track\nclip.mp4 +not a movie name \\(needs .mov or .MOV\\)\n[^\n]*absent.mov +No such file or directory\n$")
vorta_cli_test(probe_json RC 0 ARGS probe --json ${_qt}/tc_df_5994.mov
  STDOUT "\"fourCC\":[ \t]*\"apco\".*\"videoLength\":[ \t]*3.*\"Starting TC\":[ \t]*\"01:00:00;00\".*\"attributeText\":[ \t]*\"Format\\\\n64x36p59.94\\\\nEncode Type\\\\n3\\\\nAudio Chan\\\\n0\\\\nStarting TC\\\\n01:00:00;00\\\\n\"")
vorta_cli_test(probe_json_refused RC 1 ARGS probe --json ${_qt}/bad/empty.mov
  STDOUT "\"valid\":[ \t]*false,[ \t\n]*\"refused\":[ \t]*\"not a readable QuickTime movie with a video track\"")
vorta_cli_test(probe_missing_file RC 2 ARGS probe STDERR "^vorta probe: missing argument; see 'vorta probe --help'\n$")
