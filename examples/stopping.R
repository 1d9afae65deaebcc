# How far does a car go on before it stands? The cars data has 50 stops of the 1920s. The fit is drawn into
# stopping.png.

linear <- lm(dist ~ speed, data = cars)
quadratic <- lm(dist ~ speed + I(speed^2), data = cars)

summary(quadratic)
anova(linear, quadratic)

speeds <- data.frame(speed = c(10, 15, 20, 25))
cbind(speeds, round(predict(quadratic, speeds, interval = "prediction"), 1))

png("stopping.png", width = 800, height = 600)
plot(cars, xlab = "speed (mph)", ylab = "stopping distance (ft)", pch = 19)
curve(predict(quadratic, data.frame(speed = x)), add = TRUE, lwd = 2)
invisible(dev.off())

cat("drawn:", file.exists("stopping.png"), "\n")
