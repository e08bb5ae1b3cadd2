#!/bin/sh
# Remakes the HP-GL/2 test jobs with GNU plotutils and gnuplot (Debian: plotutils, gnuplot-nox).
set -e
cd "$(dirname "$0")"
echo "0 0 1 1 2 4 3 9 4 16" | graph -T pcl > graph_plotutils.pcl
echo "0 0 1 1 2 4 3 9 4 16" | graph -T hpgl -m 2 -S 3 > graph_dashed_plotutils.hpgl
pic2plot -T pcl shapes.pic > shapes_pic2plot.pcl
gnuplot -e 'set terminal pcl5; set output "sine_gnuplot.pcl"; plot sin(x)'
gnuplot -e 'set terminal pcl5 color; set output "curves_gnuplot_colour.pcl"; set title "Curves"; plot [0:6] sin(x) title "sin", cos(x) with linespoints title "cos"'
printf '1 3\n2 5\n3 2\ne\n' | gnuplot -e 'set terminal pcl5; set output "boxes_gnuplot.pcl"; set style fill solid 0.5; set title "Boxes"; plot "-" with boxes, x*x with lines dt 2'
