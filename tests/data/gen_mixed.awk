# A mixed table for the parallel-growing tests: continuous integers and floats,
# discrete strings, unknown values in each, two classes that depend on several
# attributes with noise. Run as: awk -v seed=S -v n=N -f gen_mixed.awk
BEGIN {
  srand(seed);
  for (i = 0; i < n; i++) {
    age = int(18 + rand() * 60);
    income = sprintf("%.2f", 10000 + rand() * 140000);
    score = sprintf("%.3f", rand() * 10);
    split("red green blue black white", colours, " ");
    colour = colours[int(rand() * 5) + 1];
    region = "r" int(rand() * 12);
    flag = (rand() < 0.5) ? "yes" : "no";
    cls = ((age < 40 && income > 60000) || (colour == "blue" && score > 5) || (region == "r3")) ? "A" : "B";
    if (rand() < 0.08) cls = (cls == "A") ? "B" : "A";
    if (rand() < 0.05) age = "?";
    if (rand() < 0.05) income = "?";
    if (rand() < 0.03) colour = "?";
    if (rand() < 0.03) region = "?";
    print age "," income "," score "," colour "," region "," flag "," cls;
  }
}
