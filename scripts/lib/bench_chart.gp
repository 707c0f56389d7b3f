# Draws ratios.dat (written by bench_report.py) as horizontal bars: per case,
# the time ratio and the instruction ratio on x86-64 and i386, with the target
# as a mark; 1.0 is parity with the baseline and shorter is better. i386 times
# taken under emulation measure the emulator (the report's tables say so);
# its instruction ratios are exact.
# Usage: gnuplot -e "dat='ratios.dat'; out='ratios.svg'; term='svg'" bench_chart.gp
set datafile missing "-"
rows = system(sprintf("grep -vc '^#' %s", dat)) + 0
if (term eq 'png') { set terminal pngcairo size 1100,(120 + 44 * rows) font ",10" } \
else { set terminal svg size 1100,(120 + 44 * rows) font "sans,11" background rgb "white" }
set output out
set termoption noenhanced
set title "vobrel / baseline, same run: time and instructions per operation (shorter is better)"
set yrange [rows - 0.5:-0.5]
set xrange [0:*]
set xtics nomirror
set ytics nomirror scale 0
set grid xtics
set key outside bottom center horizontal
set arrow from 1, graph 0 to 1, graph 1 nohead dt 2 lc rgb "#444444"
set style fill solid 0.8 border -1
h = 0.2
plot dat using (0):0:(0):2:($0 - 2*h):($0 - h):ytic(1) with boxxyerror lc rgb "#3b6ea8" title "x86-64 time", \
     dat using (0):0:(0):3:($0 - h):($0) with boxxyerror lc rgb "#f2c894" title "i386 time (emulated where the report says so)", \
     dat using (0):0:(0):4:($0):($0 + h) with boxxyerror lc rgb "#7fa7d6" title "x86-64 instructions", \
     dat using (0):0:(0):5:($0 + h):($0 + 2*h) with boxxyerror lc rgb "#e08a2c" title "i386 instructions (the target)", \
     dat using 6:0 with points pt 5 ps 0.9 lc rgb "#c0392b" title "target (at most)"
