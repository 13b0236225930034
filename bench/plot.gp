# Draws tarnwick-video-bench's CSV as one PNG of two panels:
#
#   gnuplot -e "csv='figures.csv'; png='figures.png'" bench/plot.gp
#
# Left: datagrams delivered against the rate asked of the sender. Right: CPU
# of the receiving process per datagram against the rate. The daemon beside
# the plain and the batched baseline, 1400-byte payloads solid, 9000-byte
# dashed; the camera's own rates (1k to 10k/s) and the series in one line.
set datafile separator ","
set terminal pngcairo size 1400,560 font "sans,10"
set output png
# The rows of one system and payload (the light and series sections, in rate order).
rows(system, payload) = sprintf("< awk -F, '($1==\"light\" || $1==\"series\") && $4==\"%s\" && $2==%d' '%s' | sort -t, -k3,3n", system, payload, csv)
systems = "daemon plain batched"
colour(i) = i == 1 ? "#c0392b" : i == 2 ? "#2c3e50" : "#27ae60"
set multiplot layout 1,2 title "tarnwickrelay video path on loopback: the daemon beside two bare loops"
set logscale xy
set xrange [500:500000]
set yrange [500:500000]
set grid
set key top left
set xlabel "datagrams/s asked of the sender"
set ylabel "datagrams/s delivered into the ring"
set format x "%.0s%c"
set format y "%.0s%c"
plot for [i=1:3] rows(word(systems, i), 1400) using 3:6 with linespoints lw 2 pt 7 lc rgb colour(i) \
         title word(systems, i)." 1400 B", \
     for [i=1:3] rows(word(systems, i), 9000) using 3:6 with linespoints lw 2 dt 2 pt 6 lc rgb colour(i) \
         title word(systems, i)." 9000 B", \
     x with lines lc rgb "#999999" dt 3 title "all delivered"
unset logscale y
set yrange [0:*]
set ylabel "CPU of the receiving process, microseconds per datagram"
set format y "%g"
set key top right
plot for [i=1:3] rows(word(systems, i), 1400) using 3:9 with linespoints lw 2 pt 7 lc rgb colour(i) \
         title word(systems, i)." 1400 B", \
     for [i=1:3] rows(word(systems, i), 9000) using 3:9 with linespoints lw 2 dt 2 pt 6 lc rgb colour(i) \
         title word(systems, i)." 9000 B"
unset multiplot
