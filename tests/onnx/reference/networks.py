"""Whole networks in the shapes of well-known kinds, with few enough weights to run in a test."""

import torch
from torch import nn

# Attributes of ONNX are floats; these must be such, for the same numbers in double.
LEAKY_SLOPE = torch.tensor(0.1).item()
EPSILON = torch.tensor(1e-5).item()


def conv_bn(inputs, outputs, kernel, stride=1, groups=1, activation=None):
    layers = [
        nn.Conv2d(inputs, outputs, kernel, stride, kernel // 2, groups=groups, bias=False),
        nn.BatchNorm2d(outputs, EPSILON),
    ]
    return nn.Sequential(*layers, *([activation] if activation else []))


class InvertedResidual(nn.Module):
    """1x1 up, 3x3 depthwise, 1x1 down without activation; a sum where the shapes allow one."""

    def __init__(self, inputs, outputs, stride, expansion):
        super().__init__()
        hidden = inputs * expansion
        layers = [] if expansion == 1 else [conv_bn(inputs, hidden, 1, activation=nn.ReLU6())]
        layers.append(conv_bn(hidden, hidden, 3, stride, hidden, nn.ReLU6()))
        layers.append(conv_bn(hidden, outputs, 1))
        self.layers = nn.Sequential(*layers)
        self.adds = stride == 1 and inputs == outputs

    def forward(self, x):
        return x + self.layers(x) if self.adds else self.layers(x)


class SeparableClassifier(nn.Module):
    """Depthwise-separable blocks with residuals, 3 x 224 x 224 to 100 logits."""

    # Expansion, channels, blocks, stride of the first.
    STAGES = ((1, 8, 1, 1), (6, 12, 2, 2), (6, 16, 3, 2), (6, 32, 3, 2), (6, 48, 2, 1),
              (6, 80, 2, 2), (6, 160, 1, 1))

    def __init__(self):
        super().__init__()
        layers = [conv_bn(3, 16, 3, 2, activation=nn.ReLU6())]
        channels = 16
        for expansion, outputs, blocks, stride in self.STAGES:
            for block in range(blocks):
                layers.append(
                    InvertedResidual(channels, outputs, stride if block == 0 else 1, expansion))
                channels = outputs
        layers.append(conv_bn(channels, 320, 1, activation=nn.ReLU6()))
        self.features = nn.Sequential(*layers)
        self.pool = nn.AdaptiveAvgPool2d(1)
        self.classifier = nn.Sequential(nn.Dropout(0.2), nn.Linear(320, 100))

    def forward(self, x):
        return self.classifier(torch.flatten(self.pool(self.features(x)), 1))


class BasicBlock(nn.Module):
    def __init__(self, inputs, outputs, stride):
        super().__init__()
        self.first = conv_bn(inputs, outputs, 3, stride, activation=nn.ReLU())
        self.second = conv_bn(outputs, outputs, 3)
        self.shortcut = nn.Identity()
        if stride != 1 or inputs != outputs:
            self.shortcut = conv_bn(inputs, outputs, 1, stride)
        self.activation = nn.ReLU()

    def forward(self, x):
        return self.activation(self.second(self.first(x)) + self.shortcut(x))


class ResidualClassifier(nn.Module):
    """Eighteen layers of 3x3 convolutions with shortcuts, 3 x 224 x 224 to 100 logits."""

    def __init__(self):
        super().__init__()
        width = 16
        layers = [conv_bn(3, width, 7, 2, activation=nn.ReLU()), nn.MaxPool2d(3, 2, 1)]
        channels = width
        for stage in range(4):
            for block in range(2):
                outputs = width << stage
                layers.append(
                    BasicBlock(channels, outputs, 2 if stage > 0 and block == 0 else 1))
                channels = outputs
        self.features = nn.Sequential(*layers)
        self.pool = nn.AdaptiveAvgPool2d((1, 1))
        self.classifier = nn.Linear(channels, 100)

    def forward(self, x):
        x = self.pool(self.features(x))
        return self.classifier(x.view(x.size(0), -1))  # a chain of Shape, Gather, Unsqueeze, Concat


class Fire(nn.Module):
    """1x1 down, then 1x1 and 3x3 side by side."""

    def __init__(self, inputs, squeezed, expanded):
        super().__init__()
        self.squeeze = nn.Sequential(nn.Conv2d(inputs, squeezed, 1), nn.ReLU())
        self.expand1 = nn.Sequential(nn.Conv2d(squeezed, expanded, 1), nn.ReLU())
        self.expand3 = nn.Sequential(nn.Conv2d(squeezed, expanded, 3, padding=1), nn.ReLU())

    def forward(self, x):
        x = self.squeeze(x)
        return torch.cat([self.expand1(x), self.expand3(x)], 1)


class FireClassifier(nn.Module):
    """Fire modules between poolings that round up, 3 x 224 x 224 to 100 probabilities."""

    def __init__(self):
        super().__init__()
        pool = lambda: nn.MaxPool2d(3, 2, ceil_mode=True)
        self.features = nn.Sequential(
            nn.Conv2d(3, 32, 3, 2), nn.ReLU(), pool(),
            Fire(32, 8, 32), Fire(64, 8, 32), pool(),
            Fire(64, 16, 64), Fire(128, 16, 64), pool(),
            Fire(128, 24, 96), Fire(192, 24, 96), Fire(192, 32, 128), Fire(256, 32, 128))
        self.classifier = nn.Sequential(
            nn.Dropout(), nn.Conv2d(256, 100, 1), nn.ReLU(), nn.AdaptiveAvgPool2d((1, 1)))

    def forward(self, x):
        x = torch.flatten(self.classifier(self.features(x)), 1)
        return torch.softmax(x, 1)


class EncoderDecoder(nn.Module):
    """3x3 convolutions down, transposed convolutions up, skips by concatenation and by sum;
    3 x 256 x 256 to a mask of the same size."""

    def __init__(self):
        super().__init__()
        leaky = lambda: nn.LeakyReLU(LEAKY_SLOPE)
        self.down1 = conv_bn(3, 8, 3, 2, activation=leaky())
        self.down2 = conv_bn(8, 16, 3, 2, activation=leaky())
        self.down3 = conv_bn(16, 32, 3, 2, activation=leaky())
        self.middle = nn.Sequential(
            conv_bn(32, 48, 3, 2, activation=leaky()), conv_bn(48, 48, 3, activation=leaky()))
        up = lambda inputs, outputs: nn.Sequential(
            nn.ConvTranspose2d(inputs, outputs, 4, 2, 1), nn.ReLU())
        self.up3 = up(48, 32)
        self.join3 = conv_bn(64, 32, 3, activation=leaky())
        self.up2 = up(32, 16)
        self.join2 = conv_bn(16, 16, 3, activation=leaky())
        self.up1 = up(16, 8)
        self.join1 = conv_bn(16, 8, 3, activation=leaky())
        self.up0 = nn.ConvTranspose2d(8, 1, 4, 2, 1)

    def forward(self, x):
        one = self.down1(x)
        two = self.down2(one)
        three = self.down3(two)
        x = self.join3(torch.cat([self.up3(self.middle(three)), three], 1))
        x = self.join2(self.up2(x) + two)
        x = self.join1(torch.cat([self.up1(x), one], 1))
        return torch.sigmoid(self.up0(x))


class Denoiser(nn.Module):
    """A recurrent layer, one of both directions and a dense layer over frames of 40 bands; gives a
    factor from 0 to 1 for each band. Frames x 1 x 40 to the same."""

    def __init__(self):
        super().__init__()
        self.first = nn.LSTM(40, 48)
        self.second = nn.LSTM(48, 32, bidirectional=True)
        self.dense = nn.Linear(64, 40)

    def forward(self, x):
        x, _ = self.first(x)
        x, _ = self.second(x)
        return torch.sigmoid(self.dense(x))


class OneFrameDenoiser(nn.Module):
    """The form for a stream: one frame, dense layers around a recurrent one."""

    def __init__(self):
        super().__init__()
        self.before = nn.Linear(40, 48)
        self.cell = nn.LSTM(48, 48)
        self.after = nn.Linear(48, 40)

    def forward(self, x):
        x, _ = self.cell(torch.tanh(self.before(x)).unsqueeze(0))
        return torch.sigmoid(self.after(x.squeeze(0)))


# Name: module, shape of the input, its range, operator set, every how many pixels of the output are
# kept. Pixels are kept at a distance that is coprime to the strides, for all their phases.
NETWORKS = {
    "separable_classifier": (SeparableClassifier, (1, 3, 224, 224), (-2, 2), 11, 1),
    "residual_classifier": (ResidualClassifier, (1, 3, 224, 224), (-2, 2), 13, 1),
    "fire_classifier": (FireClassifier, (1, 3, 224, 224), (-2, 2), 10, 1),
    "encoder_decoder": (EncoderDecoder, (1, 3, 256, 256), (-2, 2), 16, 5),
    "denoiser": (Denoiser, (16, 1, 40), (-2, 2), 14, 1),
    "one_frame_denoiser": (OneFrameDenoiser, (1, 40), (-2, 2), 9, 1),
}
