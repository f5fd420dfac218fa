# gnuplot -c enumerate.gp DATA SVG
set terminal svg size 720,440 font "DejaVu Sans,12" background "white"
set output ARG2
set title "Enumerate: time against the number of applications"
set xlabel "applications"
set ylabel "milliseconds"
set key top left reverse Left
set grid lc rgb "#dddddd"
set xrange [0:*]
set yrange [0:*]
plot ARG1 using 1:2:3:4 with yerrorlines lc rgb "#1f5fa8" pt 7 ps 0.6 title "kxcore, over the bus", \
     '' using 1:5:6:7 with yerrorlines lc rgb "#804080" pt 3 ps 0.6 title "the answer alone, bare QtDBus", \
     '' using 1:8:9:10 with yerrorlines lc rgb "#c06010" pt 5 ps 0.6 title "floor, plain C with libxml2", \
     '' using 1:11:12:13 with yerrorlines lc rgb "#508030" pt 9 ps 0.6 title "floor, plain C with pugixml"
