# Time per domain of a rebuild over the number of domains. Variables: data, output.
set terminal svg size 760,420 font "sans-serif,13" background "white"
set output output
set logscale x
set xlabel "domains"
set ylabel "milliseconds per domain"
set yrange [0:*]
set grid ytics lc rgb "#dddddd"
set border 3
set tics nomirror
set key bottom left
set format x "%'.0f"
plot data using 1:2 with linespoints lw 2 pt 7 lc rgb "#b03a2e" title "halyard", \
     data using 1:3 with linespoints lw 2 pt 6 lc rgb "#1f618d" title "floor", \
     data using 1:4 with linespoints lw 1 dt 2 pt 7 lc rgb "#b03a2e" title "halyard, own CPU", \
     data using 1:5 with linespoints lw 1 dt 2 pt 6 lc rgb "#1f618d" title "floor, own CPU"
